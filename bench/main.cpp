// SPDX-License-Identifier: MIT
// The bench: runs the registered items, the library started, and a second thread parked, so that the C library takes
// the paths that a server's threads see, with locks that lock.

#include <dlfcn.h>
#include <pthread.h>
#include <string.h>
#include <unistd.h>

#include "bench.h"
#include "memory_figures.h"

namespace bench {

void* symbolOf(const char* library, const char* name)
{
    void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
    return handle == nullptr ? nullptr : dlsym(handle, name);
}

} // namespace bench

namespace {

class ParkedThread {
public:
    ParkedThread()
    {
        bench::must(pipe(pipe_) == 0, "pipe");
        bench::must(pthread_create(&thread_, nullptr, wait, this) == 0, "pthread_create");
    }

    ~ParkedThread()
    {
        close(pipe_[1]);
        pthread_join(thread_, nullptr);
        close(pipe_[0]);
    }

    ParkedThread(const ParkedThread&) = delete;
    ParkedThread& operator=(const ParkedThread&) = delete;

private:
    static void* wait(void* self)
    {
        char byte;
        const ssize_t got = read(static_cast<ParkedThread*>(self)->pipe_[0], &byte, 1);
        bench::must(got == 0, "parking a thread");
        return nullptr;
    }

    int pipe_[2] = {-1, -1};
    pthread_t thread_ = {};
};

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && strcmp(argv[1], "resident") == 0)
        return bench::resident(argc - 2, argv + 2);
    if (argc > 1 && strcmp(argv[1], "startup") == 0)
        return bench::startup();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    bench::must(eko_init() == 0, "eko_init");
    {
        const ParkedThread parked;
        benchmark::RunSpecifiedBenchmarks();
    }
    eko_term();
    return 0;
}
