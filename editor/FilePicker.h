// Choosing files or a folder inside the panel, where an embedded editor cannot open a dialog
// window of its own: the home folder as a tree of rows, opened folder by folder. For import the
// user ticks one or more preset files; for export the user selects the folder to copy into.
// The model only: PanelOverlays draws it.
// Threading: the view's thread.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "editor/FileEnumerator.h"

namespace sr::editor {

class FilePicker {
public:
    enum class Mode { openPresets, chooseFolder };

    // `root` is listed as the first row, open; `rootTitle` is what that row shows.
    FilePicker(Mode mode, const std::string& root, const std::string& rootTitle);

    Mode mode() const { return mode_; }
    const std::vector<FileItem>& rows() const { return rows_; }
    std::optional<std::size_t> selectedRow;

    // A row chosen (clicked, or Enter or Space on it): a folder opens or closes (and, when
    // choosing a folder, becomes the choice); a preset file is ticked or unticked.
    void choose(std::size_t row);
    // Opens or closes only the folder of a row.
    void toggleFolder(std::size_t row);
    bool isTicked(const std::string& path) const;
    // The ticked files, in the order they were ticked.
    const std::vector<std::string>& tickedFiles() const { return ticked; }
    // The folder the selected row stands for (a file's folder when a file is selected), or
    // none.
    std::optional<std::string> chosenFolder() const;

    // The caller's title and prompt, and what to do with the result.
    std::string title;
    std::string prompt;
    std::string confirmTitle;
    std::function<void(const FilePicker&)> onConfirm;

private:
    FileEnumerator::Options options() const;

    Mode mode_;
    std::vector<FileItem> rows_;
    std::vector<std::string> ticked;
};

} // namespace sr::editor
