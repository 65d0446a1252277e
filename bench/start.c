/* SPDX-License-Identifier: MIT
 *
 * A program that does nothing, linked to the library or not: what the library costs before its
 * first call.  With an argument it prints the KiB of its memory that no file backs; the pages of
 * files, the code above all, can be shared and dropped. */
#include <stdio.h>

int main(int argc, char **argv)
{
    (void)argv;
    if (argc == 1)
        return 0;
    FILE *ptFile = fopen("/proc/self/smaps_rollup", "r");
    if (!ptFile)
        return 1;
    char achLine[256];
    long nTotal = 0;
    long nSize;
    while (fgets(achLine, sizeof achLine, ptFile))
        if (sscanf(achLine, "Anonymous: %ld", &nSize) == 1)
            nTotal += nSize;
    fclose(ptFile);
    printf("%ld\n", nTotal);
    return 0;
}
