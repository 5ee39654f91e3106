#include "ekofile_int.h"

bool eko_match(const char*, const char*)
{
    return false;
}
