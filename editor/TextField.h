// The editing model of a one-line text field: UTF-8 text, a caret and a selection, changed by
// typed text and the keys of a desktop text field. Never splits a character and never holds
// control characters or broken UTF-8, whatever arrives.
// Threading: the view's thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace sr::editor {

class TextField {
public:
    // A file name needs no more; typing beyond it is ignored.
    static constexpr std::size_t kMaxBytes = 1024;

    TextField() = default;
    // The text with all of it selected, so typing replaces it.
    explicit TextField(std::string text);

    const std::string& text() const { return text_; }
    void setText(std::string text);
    // Byte offsets into text(), always on character boundaries.
    std::size_t caret() const { return caret_; }
    std::size_t selectionStart() const { return std::min(anchor, caret_); }
    std::size_t selectionEnd() const { return std::max(anchor, caret_); }
    bool hasSelection() const { return anchor != caret_; }

    // Inserts typed text at the caret over the selection; control characters and broken
    // sequences are left out.
    void insert(std::string_view typed);
    void backspace();
    void deleteForward();
    // Caret moves; `extend` (Shift held) grows the selection instead of dropping it.
    void left(bool extend = false);
    void right(bool extend = false);
    void home(bool extend = false);
    void end(bool extend = false);
    void selectAll();
    // Places the caret at a byte offset (rounded down to a character boundary).
    void setCaret(std::size_t offset, bool extend = false);

private:
    void eraseSelection();
    void moveTo(std::size_t offset, bool extend);

    std::string text_;
    std::size_t caret_ = 0;
    std::size_t anchor = 0;
};

} // namespace sr::editor
