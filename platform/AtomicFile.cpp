#include "platform/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <vector>

namespace sr {

namespace {

mode_t newFileMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

std::filesystem::path folderOf(const std::string& path) {
    const std::filesystem::path target(path);
    return target.has_parent_path() ? target.parent_path() : std::filesystem::path(".");
}

// Flushes a file or folder to disk; false with errno set on failure.
bool syncPath(const std::string& path, int flags) {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd < 0) return false;
    const bool synced = ::fsync(fd) == 0;
    const int savedErrno = errno;
    ::close(fd);
    errno = savedErrno;
    return synced;
}

} // namespace

AtomicFile::AtomicFile(std::string path) : destination(std::move(path)) {
    const std::filesystem::path folder = folderOf(destination);
    const std::string pattern =
        (folder / ("." + std::filesystem::path(destination).filename().string() + ".XXXXXX"))
            .string();
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = ::mkstemp(buffer.data());
    if (fd < 0) fail(std::strerror(errno));
    temporary = buffer.data();
    const bool ok = ::fchmod(fd, newFileMode()) == 0;
    const int savedErrno = errno;
    if (::close(fd) != 0 || !ok) {
        ::unlink(temporary.c_str());
        fail(std::strerror(ok ? errno : savedErrno));
    }
}

AtomicFile::~AtomicFile() {
    if (!committed && !temporary.empty()) ::unlink(temporary.c_str());
}

void AtomicFile::fail(const std::string& reason) const {
    throw FileError("cannot write '" + destination + "': " + reason);
}

void AtomicFile::commit(bool replace) {
    if (!syncPath(temporary, O_RDONLY)) fail(std::strerror(errno));
    if (replace) {
        if (std::rename(temporary.c_str(), destination.c_str()) != 0) fail(std::strerror(errno));
    } else {
        // A hard link fails when the name exists, so a file that appears meanwhile is kept.
        if (::link(temporary.c_str(), destination.c_str()) != 0) fail(std::strerror(errno));
        ::unlink(temporary.c_str());
    }
    committed = true;
    // The rename itself reaches the disk with the folder; a failure here no longer loses data.
    syncPath(folderOf(destination).string(), O_RDONLY | O_DIRECTORY);
}

void writeFileAtomically(const std::string& path, std::string_view bytes, bool replace) {
    AtomicFile file(path);
    const int fd = ::open(file.temporaryPath().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) throw FileError("cannot write '" + path + "': " + std::strerror(errno));
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int savedErrno = n < 0 ? errno : EIO;
            ::close(fd);
            throw FileError("cannot write '" + path + "': " + std::strerror(savedErrno));
        }
        written += std::size_t(n);
    }
    if (::close(fd) != 0) throw FileError("cannot write '" + path + "': " + std::strerror(errno));
    file.commit(replace);
}

} // namespace sr
