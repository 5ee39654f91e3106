#include "memory_figures.h"

#include "bench.h"

namespace bench {

int resident(int, char**)
{
    return 2;
}

int startup()
{
    return 2;
}

} // namespace bench
