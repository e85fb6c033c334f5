// Where a plug-in keeps its user's files: the XDG data folder of the application.
#pragma once

#include <string>
#include <string_view>

namespace sr {

// $XDG_DATA_HOME/<application>/ (when set and absolute), else ~/.local/share/<application>/;
// empty when neither can be found. Always ends with '/'.
std::string userDataDirectory(std::string_view application);

// Creates a folder with its missing parents. False with the reason when it cannot, or when
// something other than a folder is in the way.
bool ensureDirectoryExists(const std::string& path, std::string& error);

} // namespace sr
