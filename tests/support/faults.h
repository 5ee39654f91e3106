// faults.h - makes the library's requests to the system heap fail. A test that includes it needs the line
// LINK: --wrap=malloc --wrap=calloc --wrap=realloc
// in its own first comment. Requests of the C and C++ run-time are not touched.
#ifndef EKO_TESTS_FAULTS_H
#define EKO_TESTS_FAULTS_H

#include "base.h"

// While alive, the n-th request from here on fails, or from the n-th on all do.
class FailNthAlloc {
public:
    enum Extent { ONE, ALL_FROM_THERE };
    explicit FailNthAlloc(uint32 n, Extent extent = ONE);
    ~FailNthAlloc();
    FailNthAlloc(const FailNthAlloc&) = delete;
    FailNthAlloc& operator=(const FailNthAlloc&) = delete;
    bool fired() const;
};

#endif
