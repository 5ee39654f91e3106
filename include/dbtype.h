/* SPDX-License-Identifier: MIT */
/* dbtype.h - types of the database engine that its platform library shares. */
#ifndef EKO_DBTYPE_H
#define EKO_DBTYPE_H

#include "base.h"

/** Number of one of the database's files. */
typedef uint16 FILE_NO;

/** Address of a record: the file that holds it, and its slot in that file. */
typedef struct DB_ADDR {
    FILE_NO file; /**< the database file */
    uint32 slot;  /**< the record's slot in it */
} DB_ADDR;

/** The two addresses that name no record. NULL_DBA is "not set"; NONE_DBA is "there is none", e.g. the end
 *  of a chain. Each translation unit has its own copy, so that they are plain constants in C and in C++. */
static const DB_ADDR NULL_DBA = {0, 0};
static const DB_ADDR NONE_DBA = {0xFFFF, 0xFFFFFFFFu};

#endif
