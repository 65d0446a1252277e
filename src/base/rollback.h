// SPDX-License-Identifier: MIT
#ifndef APPCORE_BASE_ROLLBACK_H
#define APPCORE_BASE_ROLLBACK_H

#include <utility>

namespace app
{

// Undoes one acquired thing unless dismissed.  Declared right after the acquisition, so that the
// reverse order of destruction is the order of the clean-up.
template <typename Undo>
class [[nodiscard]] Rollback
{
public:
    explicit Rollback(Undo undo) : m_undo(std::move(undo)) {}
    ~Rollback()
    {
        if (m_bArmed)
            m_undo();
    }
    Rollback(const Rollback &) = delete;
    Rollback &operator=(const Rollback &) = delete;

    void Dismiss() { m_bArmed = false; }

private:
    Undo m_undo;
    bool m_bArmed = true;
};

} // namespace app

#endif
