// SPDX-License-Identifier: MIT
//
// What the library consists of: the names in its public headers, and its functions.
#ifndef APPCORE_TESTS_SUPPORT_EXPORTED_H
#define APPCORE_TESTS_SUPPORT_EXPORTED_H

#include <map>
#include <set>
#include <string>

namespace test
{

// Every exported operation with its parameters, as the public headers declare them.
const std::map<std::string, std::string> &Exported();
// Whether the library has a function of this name.
bool IsFunction(const std::string &name);
// The names that are no word of the text.  There a word may end in an asterisk.
std::string Unlisted(const std::set<std::string> &names, const std::string &text);

} // namespace test

#endif
