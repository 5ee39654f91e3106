// SPDX-License-Identifier: MIT
// Configuration files: parsed, asked, changed.

#include <string.h>

#include "files.h"

#if BENCH_GLIB
#include <glib.h>
#endif
#if BENCH_INIH
#include <ini.h>
#endif

namespace {

using namespace bench;

// ---- files ------------------------------------------------------------------------------------------------

// A file of sections named s0, s1..., each with entries named like "entry_17" with values like "value of 17".
class IniFile {
public:
    IniFile(unsigned sections, unsigned entries) : path_(scratch("bench.ini"))
    {
        FILE* file = fopen(path_.c_str(), "w");
        must(file != nullptr, path_.c_str());
        for (unsigned section = 0; section < sections; ++section) {
            fprintf(file, "[s%u]\n", section);
            for (unsigned entry = 0; entry < entries; ++entry)
                fprintf(file, "entry_%u=value of %u\n", entry, entry);
        }
        fclose(file);
    }
    ~IniFile() { unlink(path_.c_str()); }
    IniFile(const IniFile&) = delete;
    IniFile& operator=(const IniFile&) = delete;
    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

constexpr unsigned SECTIONS = 40;
constexpr unsigned ENTRIES = 25;

// What those keep who parse by themselves: names and values in arrays that are used again.
class Kept {
public:
    void clear()
    {
        sections_ = 0;
        entries_ = 0;
    }
    void section(const char* name) { set(at(sectionNames_, sections_++), name); }
    void entry(const char* name, const char* value)
    {
        Entry& entry = at(entryNames_, entries_++);
        set(entry.name, name);
        set(entry.value, value);
    }
    bool in(const char* section) const
    {
        return sections_ > 0 && strcmp(sectionNames_[sections_ - 1].text, section) == 0;
    }
    size_t count() const { return entries_; }

private:
    struct Text {
        char text[128];
    };
    struct Entry {
        Text name;
        Text value;
    };
    template <class T> static T& at(std::vector<T>& array, size_t index)
    {
        if (index == array.size())
            array.emplace_back();
        return array[index];
    }
    static void set(Text& to, const char* from)
    {
        if (!memccpy(to.text, from, 0, sizeof(to.text) - 1))
            to.text[sizeof(to.text) - 1] = 0;
    }

    std::vector<Text> sectionNames_;
    std::vector<Entry> entryNames_;
    size_t sections_ = 0;
    size_t entries_ = 0;
};

// ---- implementations --------------------------------------------------------------------------------------

class EkoIni {
public:
    static constexpr const char* NAME = "eko";

    explicit EkoIni(const char* path) : path_(path) { must(get("s0", "entry_0"), "eko_iniGet"); }
    ~EkoIni() { eko_iniCleanup(); }

    void parseAgain() { eko_readIniFile(path_); }

    static void parseFirst(const char* path)
    {
        eko_readIniFile(path);
        eko_iniCleanup();
    }

    bool get(const char* section, const char* entry)
    {
        char value[64];
        const bool found = eko_iniGet(path_, section, entry, value, sizeof(value)) == 0;
        benchmark::DoNotOptimize(value);
        return found;
    }

    void set(const char* section, const char* entry, const char* value)
    {
        must(eko_iniSet(path_, section, entry, value) == 0, "eko_iniSet");
    }

private:
    const char* path_;
};

#if BENCH_GLIB
class KeyFile {
public:
    static constexpr const char* NAME = "glib";

    explicit KeyFile(const char* path) : file_(g_key_file_new())
    {
        must(g_key_file_load_from_file(file_, path, G_KEY_FILE_NONE, nullptr), "g_key_file_load_from_file");
    }
    ~KeyFile() { g_key_file_free(file_); }

    static void parseFirst(const char* path) { KeyFile file(path); }

    bool get(const char* section, const char* entry)
    {
        char* value = g_key_file_get_string(file_, section, entry, nullptr);
        const bool found = value != nullptr;
        benchmark::DoNotOptimize(value);
        g_free(value);
        return found;
    }

private:
    GKeyFile* file_;
};
#else
using KeyFile = Absent;
#endif

#if BENCH_INIH
class Inih {
public:
    static constexpr const char* NAME = "inih";

    explicit Inih(const char* path) : path_(path) { parseAgain(); }

    void parseAgain()
    {
        kept_.clear();
        must(ini_parse(path_, keep, &kept_) == 0, "ini_parse");
        must(kept_.count() == SECTIONS * ENTRIES, "keeping what ini_parse found");
    }

private:
    static int keep(void* data, const char* section, const char* name, const char* value)
    {
        auto* kept = static_cast<Kept*>(data);
        if (!kept->in(section))
            kept->section(section);
        kept->entry(name, value);
        return 1;
    }

    const char* path_;
    Kept kept_;
};
#else
using Inih = Absent;
#endif

// Reads, changes and writes the file with the streams of the C library, then parses it again.
class ByHand {
public:
    static constexpr const char* NAME = "stdio";

    explicit ByHand(const char* path) : path_(path), temporary_(scratch("by_hand.ini")) { parse(); }

    void set(const char* section, const char* entry, const char* value)
    {
        rewrite(section, entry, value);
        must(rename(temporary_.c_str(), path_) == 0, "rename");
        parse();
    }

private:
    static FILE* opened(const char* path, const char* mode)
    {
        FILE* file = fopen(path, mode);
        must(file != nullptr, path);
        return file;
    }

    void rewrite(const char* section, const char* entry, const char* value)
    {
        FILE* in = opened(path_, "r");
        FILE* out = opened(temporary_.c_str(), "w");
        const std::string header = std::string("[") + section + "]";
        const std::string start = std::string(entry) + "=";
        bool inside = false;
        bool done = false;
        char line[1024];
        while (fgets(line, sizeof(line), in)) {
            if (line[0] == '[')
                inside = strncmp(line, header.c_str(), header.size()) == 0;
            if (inside && !done && strncmp(line, start.c_str(), start.size()) == 0) {
                fprintf(out, "%s=%s\n", entry, value);
                done = true;
            } else {
                fputs(line, out);
            }
        }
        fclose(in);
        must(fclose(out) == 0 && done, "rewriting by hand");
    }

    void parse()
    {
        kept_.clear();
        FILE* in = opened(path_, "r");
        char line[1024];
        while (fgets(line, sizeof(line), in)) {
            line[strcspn(line, "\r\n;")] = 0;
            if (line[0] == '[')
                takeSection(line);
            else
                takeEntry(line);
        }
        fclose(in);
        must(kept_.count() == SECTIONS * ENTRIES, "parsing by hand");
    }

    void takeSection(char* line)
    {
        line[strcspn(line, "]")] = 0;
        kept_.section(line + 1);
    }

    void takeEntry(char* line)
    {
        char* equals = strchr(line, '=');
        if (!equals)
            return;
        *equals = 0;
        kept_.entry(line, equals + 1);
    }

    const char* path_;
    std::string temporary_;
    Kept kept_;
};

// ---- items ------------------------------------------------------------------------------------------------

constexpr auto parseAgain = []<class Ini>(State& state) {
    const IniFile file(SECTIONS, ENTRIES);
    Ini ini(file.path());
    for (auto _ : state)
        ini.parseAgain();
};

constexpr auto parseFirst = []<class Ini>(State& state) {
    const IniFile file(SECTIONS, ENTRIES);
    for (auto _ : state)
        Ini::parseFirst(file.path());
};

constexpr auto setOne = []<class Ini>(State& state) {
    const IniFile file(SECTIONS, ENTRIES);
    Ini ini(file.path());
    bool even = false;
    for (auto _ : state) {
        ini.set("s20", "entry_12", even ? "one" : "another");
        even = !even;
    }
};

// One section of 5,000 entries.
template <class Ini> void get(State& state, const char* entry, bool there)
{
    const IniFile file(1, 5000);
    Ini ini(file.path());
    for (auto _ : state)
        must(ini.get("s0", entry) == there, "a look-up");
}

constexpr auto getFirst = []<class Ini>(State& state) { get<Ini>(state, "entry_0", true); };
constexpr auto getLast = []<class Ini>(State& state) { get<Ini>(state, "entry_4999", true); };
constexpr auto getMissing = []<class Ini>(State& state) { get<Ini>(state, "entry_5000", false); };

// Entries all over a file, which has sections of at most 50,000: a section of ours holds no more than 65,535.
constexpr auto getAnyOf = []<class Ini>(State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    const unsigned sections = (count + 49999) / 50000;
    const IniFile file(sections, count / sections);
    Ini ini(file.path());
    struct Name {
        char section[32];
        char entry[32];
    };
    std::vector<Name> names(1024);
    Blocks entries(count / sections, 1);
    for (Name& name : names) {
        snprintf(name.section, sizeof(name.section), "s%u", static_cast<unsigned>(entries.next() % sections));
        snprintf(name.entry, sizeof(name.entry), "entry_%u", static_cast<unsigned>(entries.next()));
    }
    size_t i = 0;
    for (auto _ : state) {
        const Name& name = names[i++ % names.size()];
        must(ini.get(name.section, name.entry), "a look-up");
    }
};

const bool registered =
    item<EkoIni, Inih>("ini.parse.again", parseAgain) && item<EkoIni, KeyFile>("ini.parse.first", parseFirst) &&
    item<EkoIni, KeyFile>("ini.get.first", getFirst) && item<EkoIni, KeyFile>("ini.get.last", getLast) &&
    item<EkoIni, KeyFile>("ini.get.missing", getMissing) &&
    item<EkoIni, ByHand>("ini.set", {.wall = true}, setOne) &&
    item<EkoIni, KeyFile>("scale.ini_get.entries", {.sizes = {10, 100, 1000, 10000, 100000}}, getAnyOf);

} // namespace
