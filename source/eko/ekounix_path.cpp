// Operating-system calls for paths and directories, made once, as asked. No state, no locks.

#include <unistd.h>

#include "ekofile_int.h"

char* eko_getcwd(char* buffer, size_t length)
{
    return getcwd(buffer, length);
}
