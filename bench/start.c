/* SPDX-License-Identifier: MIT
 *
 * A program that does nothing, linked to the library or not: what the library costs before its
 * first call.  With an argument it says so and waits for its input to end, to be looked at. */
#include <unistd.h>

int main(int argc, char **argv)
{
    (void)argv;
    char ch = '\n';
    return argc > 1 && (write(STDOUT_FILENO, &ch, 1) != 1 || read(STDIN_FILENO, &ch, 1) != 0);
}
