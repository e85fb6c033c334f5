// Alerts of the editor, drawn inside the panel's own window: a title, a message, an optional
// text field and one or more actions. The host controller shows them one at a time over the
// panel and whatever overlay is open (PanelOverlays draws them).
// Threading: the view's thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "editor/TextField.h"

namespace sr::editor {

struct AlertAction {
    enum class Style { normal, cancel, destructive };
    std::string title;
    Style style = Style::normal;
    // Runs after the alert is gone, with the text field's text (empty without a field).
    std::function<void(const std::string& text)> handler;
};

struct PanelAlert {
    std::string title;
    std::string message;
    std::vector<AlertAction> actions;
    std::optional<TextField> textField;

    // The action Enter takes (the first one that does not cancel) and the one Escape takes (a
    // cancel action, else the only action); -1 when there is none.
    int defaultAction() const;
    int cancelAction() const;
};

// What shows alerts: the host controller. Both log "Alert: " + caption + " : " + message.
class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // An alert with "OK"; `completion` runs after it.
    virtual void alert(const std::string& caption, const std::string& message,
                       std::function<void()> completion = {}) = 0;
    // A question with "OK" and "Cancel": `completion` runs after "OK", `cancelled` after
    // "Cancel".
    virtual void alertQuestion(const std::string& caption, const std::string& question,
                               std::function<void()> completion,
                               std::function<void()> cancelled = {}) = 0;
};

} // namespace sr::editor
