#include "editor/FileEnumerator.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "audiounit/PresetName.h"
#include "util/Utf8.h"

namespace fs = std::filesystem;

namespace sr::editor {

namespace {

// Names in the order people expect: letter case ignored, and runs of digits by their number,
// so "Pad 2" comes before "Pad 10".
bool naturalLess(const std::string& a, const std::string& b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[j]);
        if (std::isdigit(ca) && std::isdigit(cb)) {
            std::size_t ei = i, ej = j;
            while (ei < a.size() && a[ei] == '0') ++ei;
            while (ej < b.size() && b[ej] == '0') ++ej;
            std::size_t di = ei, dj = ej;
            while (di < a.size() && std::isdigit(static_cast<unsigned char>(a[di]))) ++di;
            while (dj < b.size() && std::isdigit(static_cast<unsigned char>(b[dj]))) ++dj;
            if (di - ei != dj - ej) return di - ei < dj - ej;
            if (int c = a.compare(ei, di - ei, b, ej, dj - ej); c != 0) return c < 0;
            i = di;
            j = dj;
            continue;
        }
        const int la = std::tolower(ca), lb = std::tolower(cb);
        if (la != lb) return la < lb;
        ++i;
        ++j;
    }
    if (a.size() - i != b.size() - j) return a.size() - i < b.size() - j;
    return a < b; // the same but for case: a fixed order all the same
}

bool shown(const FileItem& item, FileEnumerator::Show show) {
    switch (show) {
    case FileEnumerator::Show::everything:
        return true;
    case FileEnumerator::Show::presetsAndFolders:
        return item.isFolder() || item.kind == FileKind::preset;
    case FileEnumerator::Show::foldersOnly:
        return item.isFolder();
    }
    return true;
}

} // namespace

std::string FileItem::title() const {
    if (isMore) return name;
    switch (kind) {
    case FileKind::folder:
        return utf8::sanitized(name);
    case FileKind::preset:
    case FileKind::fullState:
        return utf8::sanitized(fs::path(name).stem().string());
    case FileKind::unsupported:
        break;
    }
    return "Unsupported File ( '" + utf8::sanitized(name);
}

FileEnumerator& FileEnumerator::shared() {
    static FileEnumerator instance;
    return instance;
}

FileKind FileEnumerator::kindOf(const std::string& name) {
    if (isPresetFileName(name)) return FileKind::preset;
    if (hasExtension(name, ".FULLSTATE")) return FileKind::fullState;
    return FileKind::unsupported;
}

std::string FileEnumerator::folderInfo(const std::string& folder) {
    std::ifstream in(fs::path(folder) / kInfoFile, std::ios::binary);
    if (!in) return {};
    std::string bytes(kInfoBytes, '\0');
    in.read(bytes.data(), std::streamsize(bytes.size()));
    bytes.resize(std::size_t(in.gcount()));
    // One line of visible text: line breaks and tabs become spaces, runs of spaces one, other
    // control characters and broken sequences go (a sequence cut by the read limit too).
    std::string text;
    for (std::size_t i = 0; i < bytes.size();) {
        const std::size_t n = utf8::sequenceLength(bytes, i);
        if (n == 0) {
            ++i;
            continue;
        }
        const char32_t cp = utf8::decode(bytes, i);
        if (cp == '\n' || cp == '\r' || cp == '\t' || cp == ' ') {
            if (!text.empty() && text.back() != ' ') text += ' ';
        } else if (!utf8::isControl(cp) && cp != 0xFEFF) {
            text.append(bytes, i, n);
        }
        i += n;
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

std::vector<FileItem> FileEnumerator::contentsOfDirectory(const std::string& folder, int depth,
                                                          const Options& options) const {
    std::vector<FileItem> folders, files;
    std::error_code ec;
    std::size_t seen = 0;
    for (fs::directory_iterator it(folder, fs::directory_options::skip_permission_denied, ec), end;
         !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (name.empty() || name.front() == '.') continue;
        std::error_code kind;
        const bool isFolder = it->is_directory(kind);
        if (!isFolder && name == kInfoFile) continue;
        FileItem item;
        item.path = it->path().string();
        item.name = name;
        item.kind = isFolder ? FileKind::folder : kindOf(name);
        item.depth = depth;
        item.isDeleteble = options.deletable;
        if (!shown(item, options.show)) continue;
        if (++seen > options.maxEntries) continue;
        (isFolder ? folders : files).push_back(std::move(item));
    }
    auto byName = [](const FileItem& a, const FileItem& b) { return naturalLess(a.name, b.name); };
    std::sort(folders.begin(), folders.end(), byName);
    std::sort(files.begin(), files.end(), byName);
    // Descriptions are read for the folders shown only.
    for (FileItem& f : folders) f.info = folderInfo(f.path);
    folders.insert(folders.end(), std::make_move_iterator(files.begin()),
                   std::make_move_iterator(files.end()));
    if (seen > options.maxEntries) {
        FileItem more;
        more.isMore = true;
        more.depth = depth;
        more.isDeleteble = false;
        more.name = "… " + std::to_string(seen - options.maxEntries) + " more not shown";
        folders.push_back(std::move(more));
    }
    return folders;
}

std::size_t FileEnumerator::toggle(std::vector<FileItem>& rows, std::size_t row,
                                   const Options& options) const {
    if (row >= rows.size() || !rows[row].isFolder()) return rows.size();
    FileItem& folder = rows[row];
    if (folder.isExpanded) {
        std::size_t end = row + 1;
        while (end < rows.size() && rows[end].depth > folder.depth) ++end;
        rows.erase(rows.begin() + std::ptrdiff_t(row + 1), rows.begin() + std::ptrdiff_t(end));
        folder.isExpanded = false;
    } else {
        std::vector<FileItem> inside = contentsOfDirectory(folder.path, folder.depth + 1, options);
        folder.isExpanded = true;
        rows.insert(rows.begin() + std::ptrdiff_t(row + 1), std::make_move_iterator(inside.begin()),
                    std::make_move_iterator(inside.end()));
    }
    return rows.size();
}

std::vector<FileItem> FileEnumerator::relist(const std::string& folder,
                                             const std::vector<std::string>& expanded,
                                             const Options& options) const {
    std::vector<FileItem> rows = contentsOfDirectory(folder, 0, options);
    // Opening a folder inserts its rows after it, so one pass from the top reaches nested ones.
    for (std::size_t row = 0; row < rows.size(); ++row)
        if (rows[row].isFolder() && !rows[row].isExpanded &&
            std::find(expanded.begin(), expanded.end(), rows[row].path) != expanded.end())
            toggle(rows, row, options);
    return rows;
}

std::vector<std::string> expandedFolders(const std::vector<FileItem>& rows) {
    std::vector<std::string> paths;
    for (const FileItem& item : rows)
        if (item.isFolder() && item.isExpanded) paths.push_back(item.path);
    return paths;
}

} // namespace sr::editor
