#include "editor/TextField.h"

#include <algorithm>

#include "util/Utf8.h"

namespace sr::editor {

TextField::TextField(std::string text) {
    setText(std::move(text));
    selectAll();
}

void TextField::setText(std::string text) {
    text_.clear();
    caret_ = anchor = 0;
    insert(text);
}

void TextField::insert(std::string_view typed) {
    eraseSelection();
    std::string clean;
    for (std::size_t i = 0; i < typed.size();) {
        const std::size_t n = utf8::sequenceLength(typed, i);
        if (n == 0) {
            ++i;
            continue;
        }
        if (!utf8::isControl(utf8::decode(typed, i))) {
            if (text_.size() + clean.size() + n > kMaxBytes) break;
            clean.append(typed.substr(i, n));
        }
        i += n;
    }
    text_.insert(caret_, clean);
    caret_ += clean.size();
    anchor = caret_;
}

void TextField::eraseSelection() {
    if (!hasSelection()) return;
    const std::size_t from = selectionStart();
    text_.erase(from, selectionEnd() - from);
    caret_ = anchor = from;
}

void TextField::backspace() {
    if (hasSelection()) return eraseSelection();
    if (caret_ == 0) return;
    const std::size_t from = utf8::previous(text_, caret_);
    text_.erase(from, caret_ - from);
    caret_ = anchor = from;
}

void TextField::deleteForward() {
    if (hasSelection()) return eraseSelection();
    if (caret_ >= text_.size()) return;
    text_.erase(caret_, utf8::next(text_, caret_) - caret_);
}

void TextField::moveTo(std::size_t offset, bool extend) {
    caret_ = std::min(offset, text_.size());
    if (!extend) anchor = caret_;
}

void TextField::left(bool extend) {
    // Without Shift, a selection collapses to its start.
    if (hasSelection() && !extend) return moveTo(selectionStart(), false);
    moveTo(utf8::previous(text_, caret_), extend);
}

void TextField::right(bool extend) {
    if (hasSelection() && !extend) return moveTo(selectionEnd(), false);
    moveTo(utf8::next(text_, caret_), extend);
}

void TextField::home(bool extend) {
    moveTo(0, extend);
}

void TextField::end(bool extend) {
    moveTo(text_.size(), extend);
}

void TextField::selectAll() {
    anchor = 0;
    caret_ = text_.size();
}

void TextField::setCaret(std::size_t offset, bool extend) {
    offset = std::min(offset, text_.size());
    while (offset > 0 && offset < text_.size() &&
           (static_cast<unsigned char>(text_[offset]) & 0xC0) == 0x80)
        --offset;
    moveTo(offset, extend);
}

} // namespace sr::editor
