#include "platform/DocumentsDirectory.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace sr {

std::string userDataDirectory(std::string_view application) {
    std::filesystem::path base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        if (!home || home[0] != '/') {
            // Services may run without HOME; the password database still knows the folder.
            const passwd* entry = ::getpwuid(::getuid());
            home = entry ? entry->pw_dir : nullptr;
        }
        if (!home || home[0] != '/') return {};
        base = std::filesystem::path(home) / ".local" / "share";
    }
    return (base / application).string() + "/";
}

bool ensureDirectoryExists(const std::string& path, std::string& error) {
    std::error_code ec;
    std::filesystem::create_directories(path, ec);
    if (!ec && std::filesystem::is_directory(path, ec)) return true;
    error = ec ? ec.message() : "not a folder";
    return false;
}

} // namespace sr
