/* path.h - names: paths, directories, and what is done to files by name. */
#ifndef EKO_PATH_H
#define EKO_PATH_H

#include "mem.h"

EKO_EXTERN_C_BEGIN

EKO_API int32 eko_fileRemoveEx(const char* name, uint16 xflags);
EKO_API int32 eko_fileRenameEx(const char* src, uint16 src_xflags, const char* dest, uint16 dest_xflags);
EKO_API const char* eko_pathStripDrive(const char* path);

EKO_EXTERN_C_END

#endif
