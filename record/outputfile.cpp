// A file that has its final name only once there is something in it.
#include "record/outputfile.h"

#include "record/error.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace record {
namespace {

OutputError cannotWrite(const std::filesystem::path& path, int error)
{
    return OutputError("cannot write " + path.string() + ": " + std::strerror(error));
}

} // namespace

OutputFile::OutputFile(const std::filesystem::path& path, bool replace)
    : finalPath(path),
      partPath(path.string() + "." + std::to_string(getpid()) + ".part"),
      mayReplace(replace)
{
    std::error_code ignored;
    if (std::filesystem::is_directory(finalPath, ignored))
        throw OutputError(finalPath.string() + " is a folder: give a file name");
    if (!mayReplace && std::filesystem::exists(finalPath, ignored))
        throw OutputExists(finalPath.string() + " exists already");
    const int file = open(partPath.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0666);
    if (file < 0)
        throw cannotWrite(finalPath, errno);
    close(file);
}

OutputFile::~OutputFile()
{
    if (!completed)
        unlink(partPath.c_str());
}

void OutputFile::complete()
{
    // A link, unlike a rename, refuses to replace a file that has come into being meanwhile.
    if (!mayReplace && link(partPath.c_str(), finalPath.c_str()) == 0) {
        completed = true;
        unlink(partPath.c_str());
        return;
    }
    if (!mayReplace && errno == EEXIST)
        throw cannotWrite(finalPath, EEXIST);
    if (rename(partPath.c_str(), finalPath.c_str()) != 0)
        throw cannotWrite(finalPath, errno);
    completed = true;
}

} // namespace record
