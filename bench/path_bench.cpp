// SPDX-License-Identifier: MIT
// Names: against patterns, and those of a directory.

#include <dirent.h>
#include <fnmatch.h>

#include "files.h"

bool eko_match(const char* name, const char* pattern); // the library's own, from its archive

namespace {

using namespace bench;

struct EkoNames {
    static constexpr const char* NAME = "eko";

    static bool matches(const char* name, const char* pattern) { return eko_match(name, pattern); }

    static unsigned filesIn(const char* directory, const char* pattern)
    {
        const EKO_DIR dir = eko_pathOpen(directory, pattern);
        must(dir != nullptr, "eko_pathOpen");
        unsigned files = 0;
        int32 isdir;
        while (const char* name = eko_pathNext(dir, &isdir)) {
            benchmark::DoNotOptimize(name);
            files += isdir ? 0 : 1;
        }
        eko_pathClose(dir);
        return files;
    }
};

struct SystemNames {
    static constexpr const char* NAME = "system";

    static bool matches(const char* name, const char* pattern)
    {
        return fnmatch(pattern, name, FNM_CASEFOLD | FNM_NOESCAPE) == 0;
    }

    static unsigned filesIn(const char* directory, const char* pattern)
    {
        DIR* dir = opendir(directory);
        must(dir != nullptr, "opendir");
        unsigned files = 0;
        while (const dirent* entry = readdir(dir)) {
            if (!matches(entry->d_name, pattern))
                continue;
            benchmark::DoNotOptimize(entry->d_name);
            files += entry->d_type == DT_DIR ? 0 : 1;
        }
        closedir(dir);
        return files;
    }
};

struct Match {
    const char* name;
    const char* pattern;
    bool fits;
};

constexpr Match MATCHES[] = {
    {"customers.dat", "*.dat", true},
    {"CUSTOMERS.DAT", "*.dat", true},
    {"customers.idx", "*.dat", false},
    {"journal_2026_11_22.log", "journal_*.log", true},
    {"journal_2026_11_22.log", "journal_????_11_??.log", true},
    {"journal_2026_11_22.log.old", "journal_*.log", false},
    {"a rather long name of a file, as people give them.backup.tar", "*backup*", true},
    {"a rather long name of a file, as people give them.tar", "*backup*", false},
    {"main.cpp", "main.cpp", true},
    {"main.cpp", "main.h", false},
    {"anything", "*", true},
    {"table_000123_part_7.seg", "table_*_part_*.seg", true},
};

constexpr auto match = []<class Names>(State& state) {
    for (auto _ : state) {
        for (const Match& one : MATCHES) {
            const bool fits = Names::matches(one.name, one.pattern);
            must(fits == one.fits, one.name);
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(std::size(MATCHES)));
};

// A directory with that many empty files.
class Directory {
public:
    explicit Directory(unsigned files) : path_(scratch("directory")), files_(files)
    {
        must(mkdir(path_.c_str(), 0777) == 0, "mkdir");
        for (unsigned i = 0; i < files_; ++i)
            close(creat(file(i).c_str(), 0666));
    }
    ~Directory()
    {
        for (unsigned i = 0; i < files_; ++i)
            unlink(file(i).c_str());
        rmdir(path_.c_str());
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;
    const char* path() const { return path_.c_str(); }

private:
    std::string file(unsigned i) const { return path_ + "/segment_" + std::to_string(i) + ".dat"; }

    std::string path_;
    unsigned files_;
};

constexpr auto iterate = []<class Names>(State& state) {
    const Directory directory(5000);
    for (auto _ : state)
        must(Names::filesIn(directory.path(), "*.dat") == 5000, "counting the files");
};

const bool registered =
    item<EkoNames, SystemNames>("path.match", match) && item<EkoNames, SystemNames>("path.iterate", iterate);

} // namespace
