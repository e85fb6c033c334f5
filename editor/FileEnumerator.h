// Folder trees as the rows of a list: a folder's entries at a depth, folders first, each group
// by name; folders open and close in place. Reads the file system only when a folder is listed
// or opened, so a large tree (a home folder) costs only what is shown. Keeps no state of its
// own, so the shared instance serves every editor in a process at once.
// Threading: any thread; each call works on the caller's rows.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace sr::editor {

enum class FileKind {
    folder,
    preset,    // ".aupreset", any letter case
    fullState, // ".fullstate", the same dictionary
    unsupported
};

struct FileItem {
    std::string path; // the entry's whole path
    std::string name; // its file name
    FileKind kind = FileKind::unsupported;
    int depth = 0;
    bool isExpanded = false;
    // Factory items are not; the delete question is never asked for them.
    bool isDeleteble = true;
    // A folder's description, from its "info.txt".
    std::string info;
    // A row that stands for the entries left out of a very large folder.
    bool isMore = false;

    bool isFolder() const { return kind == FileKind::folder; }
    bool isLoadable() const { return kind == FileKind::preset || kind == FileKind::fullState; }
    // What the row shows: a preset's name without its extension, a folder's name, or
    // "Unsupported File ( '" and the name.
    std::string title() const;
};

class FileEnumerator {
public:
    // The entries a listing shows.
    enum class Show { everything, presetsAndFolders, foldersOnly };
    struct Options {
        Show show = Show::everything;
        bool deletable = true;
        // Entries listed per folder at most; the rest become one "more" row.
        std::size_t maxEntries = 2000;
    };
    static constexpr const char* kInfoFile = "info.txt";
    // How much of an "info.txt" is read.
    static constexpr std::size_t kInfoBytes = 512;

    static FileEnumerator& shared();

    // The entries of `folder` at `depth`. Hidden entries (a leading dot, also the temporary
    // files of atomic writes) and the folder's own "info.txt" are left out. A folder that
    // cannot be read gives no rows.
    std::vector<FileItem> contentsOfDirectory(const std::string& folder, int depth,
                                              const Options& options) const;
    // Opens the folder at `row` (its entries follow it) or closes it (its rows go). Returns the
    // new count of rows; a row that is not a folder changes nothing.
    std::size_t toggle(std::vector<FileItem>& rows, std::size_t row, const Options& options) const;
    // Lists `folder` with every folder of `expanded` opened again, as it was.
    std::vector<FileItem> relist(const std::string& folder,
                                 const std::vector<std::string>& expanded,
                                 const Options& options) const;

    static FileKind kindOf(const std::string& name);
    // The description of a folder: its "info.txt" as one line (empty when there is none).
    static std::string folderInfo(const std::string& folder);
};

// The folder paths of the open rows, for relist().
std::vector<std::string> expandedFolders(const std::vector<FileItem>& rows);

} // namespace sr::editor
