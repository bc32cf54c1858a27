// Fuzz target for the profile parser and the lookups built on it.
//
// Each input is parsed from memory (the same stream parser the file loader
// uses) and written back twice: a table written, read and written again must
// come out byte for byte the same. Then the input is written to a real file
// and looked up through the public API with tight buffers (allocated with
// exactly the one spare byte the list forms may use, so the sanitizer sees any
// write beyond it), and one key is set and flushed. The hash lookups of
// sections and keys must give what the walks over them give.
#include <ctype.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "profile/profile_cache.h"
#include "tvcommonutil/profile.h"

namespace {

using tv::detail::yufiletable;
using tv::detail::yusection;

yufiletable* ParseMemory(const char* data, size_t size) {
    yufiletable* t = tv::detail::NewProfileTable("fuzz");
    if (size == 0) return t;
    FILE* f = fmemopen(const_cast<char*>(data), size, "r");
    if (f == nullptr) abort();
    long long consumed = 0;
    tv::detail::ParseIniStream(f, t, &consumed);
    fclose(f);
    if (consumed != static_cast<long long>(size)) abort();
    return t;
}

std::string WriteMemory(const yufiletable* t) {
    char* buf = nullptr;
    size_t len = 0;
    FILE* f = open_memstream(&buf, &len);
    if (f == nullptr) abort();
    if (!tv::detail::WriteIniStream(f, t)) abort();
    fclose(f);
    std::string out(buf, len);
    free(buf);
    return out;
}

char g_scratchDir[] = "/tmp/fuzz_profile.XXXXXX";

void RemoveScratch() {
    unlink((std::string(g_scratchDir) + "/p.ini").c_str());
    rmdir(g_scratchDir);
}

const std::string& ScratchFile() {
    static const std::string path = [] {
        if (mkdtemp(g_scratchDir) == nullptr) abort();
        atexit(RemoveScratch);
        return std::string(g_scratchDir) + "/p.ini";
    }();
    return path;
}

// Reads through the public API into a heap buffer of size + 1 bytes.
std::string Read(const char* section, const char* key, unsigned long size) {
    std::vector<char> buf(size + 1, '\x7f');
    unsigned long n =
        GetPrivateProfileString(section, key, "dflt", buf.data(), size, ScratchFile().c_str());
    if (size != 0 && n > size) abort();
    return std::string(buf.data(), n);
}

std::string Flipped(std::string s) {
    for (char& c : s) c = static_cast<char>(isupper(c) ? tolower(c) : toupper(c));
    return s;
}

// Looks name up by walking t's sections and through its index.
void CheckSectionLookup(yufiletable* t, const std::string& name) {
    tv::detail::DropSectionIndex(t);
    yusection* walked = tv::detail::FindProfileSection(t, name.c_str());
    t->lookups = 1000;
    if (tv::detail::FindProfileSection(t, name.c_str()) != walked) abort();
}

// Looks every key of s up (as written and case-flipped) both ways.
void CheckKeyLookups(yusection* s) {
    for (int i = 0; i < s->lineCount && i < 64; ++i) {
        const char* line = s->lines[i];
        const char* eq = line != nullptr ? strchr(line, '=') : nullptr;
        if (eq == nullptr) continue;
        std::string key(line, static_cast<size_t>(eq - line));
        key.erase(0, key.find_first_not_of(" \t\r\n"));
        key.erase(key.find_last_not_of(" \t\r\n") + 1);
        for (const std::string& k : {key, Flipped(key)}) {
            tv::detail::DropKeyIndex(s);
            const char* walked = tv::detail::FindProfileKeyLine(s, k.c_str(), k.size());
            s->lookups = 1000;
            if (tv::detail::FindProfileKeyLine(s, k.c_str(), k.size()) != walked) abort();
        }
    }
}

void ForgetScratch() {
    tv::detail::ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    while (tv::detail::yuFreeProfileStructures(ScratchFile().c_str())) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);

    // Round trip in memory: writing is idempotent after one pass.
    yufiletable* t1 = ParseMemory(text, size);
    std::string once = WriteMemory(t1);
    yufiletable* t2 = ParseMemory(once.data(), once.size());
    std::string twice = WriteMemory(t2);
    if (once != twice) abort();
    if (t1->sectionCount != t2->sectionCount || t1->headerCount != t2->headerCount) abort();
    for (int i = 0; i < t1->sectionCount; ++i) {
        if (strcmp(t1->sections[i]->name, t2->sections[i]->name) != 0) abort();
    }
    std::vector<std::string> names;
    for (int i = 0; i < t1->sectionCount && names.size() < 4; ++i) {
        names.push_back(t1->sections[i]->name);
    }
    for (int i = 0; i < t1->sectionCount && i < 16; ++i) {
        CheckSectionLookup(t1, t1->sections[i]->name);
        CheckSectionLookup(t1, Flipped(t1->sections[i]->name));
        CheckKeyLookups(t1->sections[i]);
    }
    tv::detail::FreeProfileTable(t1);
    tv::detail::FreeProfileTable(t2);

    // Through a real file and the public API.
    ForgetScratch();
    FILE* f = fopen(ScratchFile().c_str(), "w");
    if (f == nullptr) abort();
    fwrite(data, 1, size, f);
    fclose(f);

    for (unsigned long sz : {0ul, 1ul, 2ul, 3ul, 7ul, 64ul}) Read(nullptr, nullptr, sz);
    for (const std::string& name : names) {
        std::string keys = Read(name.c_str(), nullptr, 4096);
        for (size_t pos = 0; pos < keys.size() && pos < 256;) {
            std::string key(keys.c_str() + pos);
            Read(name.c_str(), key.c_str(), 5);
            Read(name.c_str(), key.c_str(), 4096);
            pos += key.size() + 1;
        }
        for (unsigned long sz : {1ul, 2ul, 5ul}) Read(name.c_str(), nullptr, sz);
    }

    const char* section = names.empty() ? "fuzz" : names[0].c_str();
    if (WritePrivateProfileString(section, "fuzzkey", "fuzzvalue", ScratchFile().c_str()) == 1) {
        // Section names are trimmed alike by the write and the read.
        if (Read(section, "fuzzkey", 64) != "fuzzvalue") abort();
        WritePrivateProfileString(nullptr, nullptr, nullptr, ScratchFile().c_str());
        if (Read(section, "fuzzkey", 64) != "fuzzvalue") abort();
        WritePrivateProfileString(section, "fuzzkey", nullptr, ScratchFile().c_str());
    }
    ForgetScratch();
    return 0;
}
