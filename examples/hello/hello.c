/* SPDX-License-Identifier: MIT */
/* hello.c - the program of the project's README. */
#include <eko.h>

int main(void)
{
    if (eko_init() != 0)
        return 1;
    EKO_MEMTAG tag = EKO_TAG_CREATE(LIST_ALLOCATOR);
    char* words = EKO_STRDUP("Hello", tag);
    words = EKO_APPENDSTR(tag, words, " from %d %s", 12, "lines of C");
    eko_log("%s\n", words ? words : "out of memory");
    EKO_TAG_DESTROY(tag); /* frees all that was taken from it */
    eko_term();
}
