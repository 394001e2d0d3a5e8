// Bytes and directories; see fileops.h.
#include "shared/fileops.h"

#include "shared/str.h"

#include <dirent.h>
#include <fts.h>
#include <ftw.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

using namespace fileops;

namespace {

constexpr mode_t OWNER_ALONE = 0700;
constexpr std::size_t COPY_SIZE = 65536;
/// Bounds of what a comparison holds of each file.
constexpr unsigned long MIN_CHUNK = 1;
constexpr unsigned long MAX_CHUNK = 1UL << 20;
/// Directories that a deletion keeps open at a time.
constexpr int WALK_DESCRIPTORS = 10;

struct Closer {
    void operator()(DIR* dir) const { closedir(dir); }
    void operator()(FTS* walk) const { fts_close(walk); }
};

bool isDirectory(const char* path)
{
    struct stat info {};
    return path != nullptr && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

/// Whether two paths lead to one file, also by different names.
bool isSameFile(const char* a, const char* b)
{
    struct stat infoA {};
    struct stat infoB {};
    return stat(a, &infoA) == 0 && stat(b, &infoB) == 0 && infoA.st_dev == infoB.st_dev && infoA.st_ino == infoB.st_ino;
}

int byName(const FTSENT** a, const FTSENT** b)
{
    return std::strcmp((*a)->fts_name, (*b)->fts_name);
}

/// Copies what a walk has come to, if it is a file. `target` is where the walk's root of `rootSize` characters goes.
int copyEntry(const FTSENT& entry, std::size_t rootSize, const std::string& target)
{
    switch (entry.fts_info) {
    case FTS_F: {
        const std::string copy = target + "/" + str::ltrim(entry.fts_path + rootSize, "/");
        createFilePath(copy.c_str());
        return copyFile(entry.fts_path, copy.c_str());
    }
    case FTS_DNR:
    case FTS_ERR:
    case FTS_NS:
        return OPEN_FAILED;
    default:
        return 0;
    }
}

int removeEntry(const char* path, const struct stat*, int, FTW*)
{
    return std::remove(path);
}

} // namespace

// ---- Bytes ----

int readBinary(const char* path, void* data, unsigned long size)
{
    const File file(path, "rb");
    if (file == nullptr)
        return OPEN_FAILED;
    return std::fread(data, 1, size, file) == size ? 0 : TOO_SHORT;
}

int writeBinary(const char* path, const void* data, unsigned long size, bool append)
{
    const File file(path, append ? "a+b" : "wb");
    if (file == nullptr)
        return OPEN_FAILED;
    return std::fwrite(data, 1, size, file) == size && std::fflush(file) == 0 ? 0 : WRITE_FAILED;
}

// A directory opens like a file, but where it ends is anything.
long getFileSize(const char* path)
{
    const File file(path, "rb");
    if (file == nullptr || isDirectory(path) || fseeko64(file, 0, SEEK_END) != 0)
        return -1;
    return ftello64(file);
}

bool isFilesEqual(const char* a, const char* b, unsigned long chunk)
{
    const long size = getFileSize(a);
    const File fileA(a, "rb");
    const File fileB(b, "rb");
    if (size < 0 || size != getFileSize(b) || fileA == nullptr || fileB == nullptr)
        return false;
    const unsigned long held = std::clamp(chunk, MIN_CHUNK, MAX_CHUNK);
    std::vector<char> bytesA(held);
    std::vector<char> bytesB(held);
    auto left = static_cast<unsigned long>(size);
    while (left != 0) {
        const unsigned long part = std::min(left, held);
        if (std::fread(bytesA.data(), 1, part, fileA) != part || std::fread(bytesB.data(), 1, part, fileB) != part ||
            std::memcmp(bytesA.data(), bytesB.data(), part) != 0)
            return false;
        left -= part;
    }
    return true;
}

int copyFile(const char* from, const char* to)
{
    const File source(from, "rb");
    if (source == nullptr || to == nullptr || isDirectory(from))
        return OPEN_FAILED;
    if (isSameFile(from, to))
        return 0;
    const File target(to, "wb");
    if (target == nullptr)
        return OPEN_FAILED;
    std::array<char, COPY_SIZE> bytes;
    std::size_t count = 0;
    while ((count = std::fread(bytes.data(), 1, bytes.size(), source)) != 0) {
        if (std::fwrite(bytes.data(), 1, count, target) != count)
            return WRITE_FAILED;
    }
    if (std::ferror(source) != 0)
        return TOO_SHORT;
    return std::fflush(target) == 0 ? 0 : WRITE_FAILED;
}

// ---- Directories ----

bool matchMask(const char* name, const char* mask)
{
    const char* afterStar = nullptr; // in the mask, behind the last "*" so far
    const char* starEnd = nullptr;   // in the name, what the characters for that "*" go up to
    while (*name != '\0') {
        if (*mask == '*') {
            afterStar = ++mask;
            starEnd = name;
        } else if (*mask == *name || (*mask == '?' && *name != '.')) {
            ++mask;
            ++name;
        } else if (afterStar != nullptr) {
            mask = afterStar;
            name = ++starEnd;
        } else {
            return false;
        }
    }
    return mask[std::strspn(mask, "*")] == '\0';
}

int listFilesInDir(const char* dir, const char* mask, bool noDirs, bool fullPath, std::vector<std::string>& out)
{
    const std::unique_ptr<DIR, Closer> entries(dir != nullptr ? opendir(dir) : nullptr);
    if (entries == nullptr)
        return NO_DIRECTORY;
    while (const dirent* entry = readdir(entries.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || (mask != nullptr && !matchMask(name.c_str(), mask)))
            continue;
        const std::string path = std::string(dir) + "/" + name;
        if (!noDirs || !isDirectory(path.c_str()))
            out.push_back(fullPath ? path : name);
    }
    return 0;
}

std::string getFileDir(const char* path)
{
    const char* slash = path != nullptr ? std::strrchr(path, '/') : nullptr;
    return slash != nullptr ? std::string(path, slash) : "";
}

int createDir(const char* path)
{
    return path != nullptr ? mkdir(path, OWNER_ALONE) : OPEN_FAILED;
}

int createFilePath(const char* path)
{
    if (path == nullptr)
        return OPEN_FAILED;
    const std::string whole = path;
    for (std::size_t end = whole.find('/', 1); end != std::string::npos; end = whole.find('/', end + 1))
        createDir(whole.substr(0, end).c_str());
    return 0;
}

int copyFileDir(const char* from, const char* to)
{
    if (!isDirectory(from) || to == nullptr)
        return OPEN_FAILED;
    std::string root = from;
    char* const roots[] = {root.data(), nullptr};
    const std::unique_ptr<FTS, Closer> walk(fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, byName));
    if (walk == nullptr)
        return OPEN_FAILED;
    int result = 0;
    while (FTSENT* entry = fts_read(walk.get())) {
        // Copies below the directory itself would be copied again.
        if (entry->fts_info == FTS_D && isSameFile(entry->fts_path, to))
            fts_set(walk.get(), entry, FTS_SKIP);
        const int copied = copyEntry(*entry, root.size(), to);
        result = result != 0 ? result : copied;
    }
    return result;
}

int deleteFileDir(const char* path)
{
    // With a slash behind it, the name of a link would lead to what it links to.
    const std::string name = path != nullptr ? str::rtrim(path, "/") : "";
    if (name.empty())
        return OPEN_FAILED;
    return nftw(name.c_str(), removeEntry, WALK_DESCRIPTORS, FTW_DEPTH | FTW_MOUNT | FTW_PHYS) == 0 ? 0 : -1;
}
