#include "editor/PanelOverlays.h"

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "audiounit/TAVPreset.h"
#include "editor/AudioUnitViewController.h"
#include "editor/CairoShapes.h"

namespace sr::editor {

namespace {

// ---- the browser's layout, in canvas units --------------------------------------------------

constexpr CGRect kTitle{84, 34, 200, 24};
constexpr CGRect kList{80, 88, 560, 264};
constexpr double kListHeader = 22;
constexpr CGRect kDetails{664, 88, 280, 124};
constexpr CGRect kStatus{84, 358, 856, 16};
constexpr double kGrooveY = 74.5;
constexpr CGRect kBrightnessLabel{664, 306, 140, 14};
constexpr CGRect kSlider{664, 322, 280, 22};
constexpr double kScrollbarWidth = 8;

CGRect button(double cx, double cy) {
    return TAVSRChorusViewBase::buttonFrame({cx, cy});
}

// The browser's buttons: id, label, centre.
struct ButtonSpec {
    const char* id;
    const char* label;
    double cx, cy;
};
constexpr ButtonSpec kBrowserButtons[] = {
    {"factory", "Factory Files", 334, 46}, {"user", "User Files", 424, 46},
    {"close", "Close", 904, 46},           {"load", "Load", 704, 240},
    {"save", "Save As…", 804, 240},        {"delete", "Delete", 904, 240},
    {"import", "Import…", 704, 276},       {"export", "Export…", 804, 276},
    {"contrast", "Contrast", 904, 276},
};

// The picker's layout.
constexpr CGRect kPickerPrompt{84, 80, 856, 16};
constexpr CGRect kPickerList{80, 102, 864, 232};
constexpr CGRect kPickerStatus{84, 348, 600, 16};

CGRect rowsOf(const CGRect& list, double header) {
    return {list.minX(), list.minY() + header, list.width(), list.height() - header};
}

// Alerts.
constexpr double kAlertWidth = 440;
constexpr double kAlertPad = 24;
constexpr double kFieldHeight = 30;

const char* kindLabel(const FileItem& item, PresetSet set) {
    if (item.isMore) return "";
    switch (item.kind) {
    case FileKind::folder:
        return "Folder";
    case FileKind::preset:
        return set == PresetSet::factory ? "Factory preset" : "User preset";
    case FileKind::fullState:
        return "Saved full state";
    case FileKind::unsupported:
        break;
    }
    return "Not a preset file";
}

} // namespace

// ---- opening and closing --------------------------------------------------------------------

void PanelOverlays::setNeedsDisplay() {
    controller.pluginView.setNeedsDisplay();
}

void PanelOverlays::showBrowser() {
    browserShown = true;
    hoverRow.reset();
    if (const auto row = controller.presetsViewController.tableView.selectedRow)
        ensureVisible(*row, Layer::browser);
    setNeedsDisplay();
}

void PanelOverlays::closeBrowser() {
    browserShown = false;
    pressedId.clear();
    setNeedsDisplay();
}

void PanelOverlays::showPicker(FilePicker p) {
    picker.emplace(std::move(p));
    pickerOffset = 0;
    hoverRow.reset();
    setNeedsDisplay();
}

void PanelOverlays::closePicker() {
    picker.reset();
    pressedId.clear();
    setNeedsDisplay();
}

void PanelOverlays::showAlert(PanelAlert alert) {
    alerts.push_back(std::move(alert));
    pressedId.clear();
    fieldScroll = 0;
    setNeedsDisplay();
}

void PanelOverlays::runAlertAction(std::size_t index) {
    if (alerts.empty() || index >= alerts.back().actions.size()) return;
    PanelAlert alert = std::move(alerts.back());
    alerts.pop_back();
    pressedId.clear();
    selectingText = false;
    setNeedsDisplay();
    const AlertAction& action = alert.actions[index];
    if (action.handler) action.handler(alert.textField ? alert.textField->text() : std::string());
}

int PanelAlert::defaultAction() const {
    for (std::size_t i = 0; i < actions.size(); ++i)
        if (actions[i].style != AlertAction::Style::cancel) return int(i);
    return actions.empty() ? -1 : 0;
}

int PanelAlert::cancelAction() const {
    for (std::size_t i = 0; i < actions.size(); ++i)
        if (actions[i].style == AlertAction::Style::cancel) return int(i);
    return actions.size() == 1 ? 0 : -1;
}

PanelOverlays::Layer PanelOverlays::top() const {
    if (!alerts.empty()) return Layer::alert;
    if (picker) return Layer::picker;
    if (browserShown) return Layer::browser;
    return Layer::none;
}

// ---- coordinates and regions ----------------------------------------------------------------

CGPoint PanelOverlays::toCanvas(CGPoint w) const {
    const CGRect& c = TAVSRChorusViewBase::kCanvas;
    return {(w.x - fitted.minX()) * c.width() / fitted.width(),
            (w.y - fitted.minY()) * c.height() / fitted.height()};
}

CGPoint PanelOverlays::toWindow(CGPoint p) const {
    const CGRect& c = TAVSRChorusViewBase::kCanvas;
    return {fitted.minX() + p.x * fitted.width() / c.width(),
            fitted.minY() + p.y * fitted.height() / c.height()};
}

CGRect PanelOverlays::listRowsRect() const {
    return listRowsRect(top());
}

CGRect PanelOverlays::listRowsRect(Layer layer) {
    if (layer == Layer::picker) return kPickerList.insetBy(2, 2);
    return rowsOf(kList, kListHeader).insetBy(2, 1);
}

std::size_t PanelOverlays::listCount() const {
    if (top() == Layer::picker) return picker->rows().size();
    return controller.presetsViewController.tableView.count();
}

std::optional<std::size_t> PanelOverlays::listSelection() const {
    if (top() == Layer::picker) return picker->selectedRow;
    return controller.presetsViewController.tableView.selectedRow;
}

void PanelOverlays::setListSelection(std::size_t row) {
    if (listCount() == 0) return;
    row = std::min(row, listCount() - 1);
    if (top() == Layer::picker)
        picker->selectedRow = row;
    else
        controller.presetsViewController.tableView.selectedRow = row;
    ensureVisible(row, top());
    setNeedsDisplay();
}

void PanelOverlays::chooseListRow(std::size_t row) {
    if (top() == Layer::picker)
        picker->choose(row);
    else
        controller.presetsViewController.tableView.didSelectRowAt(row);
    setNeedsDisplay();
}

double PanelOverlays::scrollOffset() const {
    return top() == Layer::picker ? pickerOffset : browserOffset;
}

void PanelOverlays::scrollBy(double rows) {
    double& offset = top() == Layer::picker ? pickerOffset : browserOffset;
    const double visible = listRowsRect().height() / kRowHeight;
    const double limit = std::max(0.0, double(listCount()) - visible);
    offset = std::clamp(offset + rows, 0.0, limit);
    setNeedsDisplay();
}

void PanelOverlays::ensureVisible(std::size_t row, Layer layer) {
    double& offset = layer == Layer::picker ? pickerOffset : browserOffset;
    const double visible = std::floor(listRowsRect(layer).height() / kRowHeight);
    if (double(row) < offset) offset = double(row);
    if (double(row) + 1 > offset + visible) offset = double(row) + 1 - visible;
    offset = std::max(0.0, offset);
}

CGRect PanelOverlays::alertCard() const {
    const PanelAlert& a = alerts.back();
    const double inner = kAlertWidth - 2 * kAlertPad;
    const double message = text.measureWrapped(a.message, PanelFont::helveticaNeue, 12, inner);
    const double height =
        22 + 24 + 10 + message + (a.textField ? 14 + kFieldHeight : 0) + 22 + 28 + 18;
    const double y = std::max(12.0, 200 - height / 2);
    return {512 - kAlertWidth / 2, y, kAlertWidth, height};
}

CGRect PanelOverlays::alertFieldRect() const {
    const CGRect card = alertCard();
    return {card.minX() + kAlertPad, card.maxY() - 18 - 28 - 22 - kFieldHeight,
            kAlertWidth - 2 * kAlertPad, kFieldHeight};
}

std::vector<PanelOverlays::Region> PanelOverlays::alertRegions() const {
    std::vector<Region> r;
    const PanelAlert& a = alerts.back();
    const CGRect card = alertCard();
    // The default action on the right, the others to its left in their order.
    std::vector<std::size_t> order;
    const int def = a.defaultAction();
    for (std::size_t i = 0; i < a.actions.size(); ++i)
        if (int(i) != def) order.push_back(i);
    if (def >= 0) order.push_back(std::size_t(def));
    double right = card.maxX() - kAlertPad;
    const double cy = card.maxY() - 18 - 14;
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        r.push_back({button(right - 40, cy), "action:" + std::to_string(*it)});
        right -= 90;
    }
    if (a.textField) r.push_back({alertFieldRect(), "field"});
    r.push_back({card, "card"});
    return r;
}

std::vector<PanelOverlays::Region> PanelOverlays::regions() const {
    return regions(top());
}

bool PanelOverlays::scrolls(Layer layer) const {
    const std::size_t count = layer == Layer::picker
                                  ? (picker ? picker->rows().size() : 0)
                                  : controller.presetsViewController.tableView.count();
    return double(count) > listRowsRect(layer).height() / kRowHeight;
}

std::vector<PanelOverlays::Region> PanelOverlays::regions(Layer layer) const {
    std::vector<Region> r;
    switch (layer) {
    case Layer::none:
        break;
    case Layer::alert:
        return alertRegions();
    case Layer::picker:
        r.push_back({button(804, 356), "cancel"});
        r.push_back({button(904, 356), "confirm"});
        if (scrolls(Layer::picker))
            r.push_back({{kPickerList.maxX() - kScrollbarWidth - 4, kPickerList.minY(),
                          kScrollbarWidth + 4, kPickerList.height()},
                         "scroll"});
        r.push_back({listRowsRect(Layer::picker), "list"});
        r.push_back({kCard, "card"});
        break;
    case Layer::browser:
        for (const ButtonSpec& b : kBrowserButtons) r.push_back({button(b.cx, b.cy), b.id});
        r.push_back({kSlider, "slider"});
        if (scrolls(Layer::browser))
            r.push_back({{kList.maxX() - kScrollbarWidth - 4, kList.minY() + kListHeader,
                          kScrollbarWidth + 4, kList.height() - kListHeader},
                         "scroll"});
        r.push_back({listRowsRect(Layer::browser), "list"});
        r.push_back({kCard, "card"});
        break;
    }
    return r;
}

std::optional<CGPoint> PanelOverlays::windowPointOf(const std::string& id) const {
    for (const Region& region : regions())
        if (region.id == id) return toWindow({region.rect.midX(), region.rect.midY()});
    return std::nullopt;
}

std::optional<CGPoint> PanelOverlays::windowPointOfRow(std::size_t row) const {
    if (top() != Layer::browser && top() != Layer::picker) return std::nullopt;
    const CGRect rows = listRowsRect();
    const double y = rows.minY() + (double(row) - scrollOffset() + 0.5) * kRowHeight;
    if (row >= listCount() || y < rows.minY() || y >= rows.maxY()) return std::nullopt;
    return toWindow({rows.minX() + rows.width() / 3, y});
}

namespace {

const PanelOverlays::Region* regionAt(const std::vector<PanelOverlays::Region>& regions,
                                      CGPoint p) {
    for (const auto& r : regions)
        if (r.rect.contains(p)) return &r;
    return nullptr;
}

} // namespace

// ---- pointer ---------------------------------------------------------------------------------

void PanelOverlays::press(CGPoint window) {
    const CGPoint p = toCanvas(window);
    const std::vector<Region> all = regions();
    const Region* hit = regionAt(all, p);
    const std::string id = hit ? hit->id : std::string();
    if (top() == Layer::alert) {
        if (id == "field") {
            selectingText = true;
            setCaretAt(p.x, false);
        } else if (id.rfind("action:", 0) == 0) {
            pressedId = id;
        }
        setNeedsDisplay();
        return;
    }
    if (id.empty()) {
        // A click beside the browser closes it; the picker waits for its own buttons.
        if (top() == Layer::browser) controller.dismissPresets();
        return;
    }
    if (id == "slider") {
        draggingSlider = true;
        setBrightnessAt(p.x);
    } else if (id == "scroll") {
        const CGRect rows = listRowsRect();
        const double visible = rows.height() / kRowHeight;
        const double count = double(listCount());
        if (count > visible) {
            const double thumbHeight = std::max(24.0, rows.height() * visible / count);
            const double travel = rows.height() - thumbHeight;
            const double thumbY = rows.minY() + travel * scrollOffset() / (count - visible);
            if (p.y >= thumbY && p.y < thumbY + thumbHeight) {
                draggingThumb = true;
                thumbGrab = p.y - thumbY;
            } else {
                scrollBy(p.y < thumbY ? -std::floor(visible) : std::floor(visible));
            }
        }
    } else if (id == "list") {
        const CGRect rows = listRowsRect();
        const double at = std::floor((p.y - rows.minY()) / kRowHeight + scrollOffset());
        if (at >= 0 && at < double(listCount())) chooseListRow(std::size_t(at));
    } else if (id != "card") {
        pressedId = id;
    }
    setNeedsDisplay();
}

void PanelOverlays::motion(CGPoint window) {
    const CGPoint p = toCanvas(window);
    if (draggingSlider) return setBrightnessAt(p.x);
    if (selectingText) return setCaretAt(p.x, true);
    if (draggingThumb) {
        const CGRect rows = listRowsRect();
        const double visible = rows.height() / kRowHeight;
        const double count = double(listCount());
        const double thumbHeight = std::max(24.0, rows.height() * visible / count);
        const double travel = rows.height() - thumbHeight;
        if (travel > 0 && count > visible) {
            double& offset = top() == Layer::picker ? pickerOffset : browserOffset;
            offset = std::clamp((p.y - thumbGrab - rows.minY()) / travel * (count - visible), 0.0,
                                count - visible);
            setNeedsDisplay();
        }
        return;
    }
    const std::vector<Region> all = regions();
    const Region* hit = regionAt(all, p);
    std::string id = hit ? hit->id : std::string();
    std::optional<std::size_t> row;
    if (id == "list") {
        const double at = std::floor((p.y - listRowsRect().minY()) / kRowHeight + scrollOffset());
        if (at >= 0 && at < double(listCount())) row = std::size_t(at);
    }
    if (id != hoverId || row != hoverRow) {
        hoverId = std::move(id);
        hoverRow = row;
        setNeedsDisplay();
    }
}

void PanelOverlays::release(CGPoint window) {
    draggingSlider = draggingThumb = selectingText = false;
    if (pressedId.empty()) return;
    const std::string id = std::move(pressedId);
    pressedId.clear();
    setNeedsDisplay();
    const std::vector<Region> all = regions();
    const Region* hit = regionAt(all, toCanvas(window));
    // A press counts where it is let go: sliding off a button cancels it.
    if (hit && hit->id == id) activate(id);
}

void PanelOverlays::wheel(CGPoint window, int steps) {
    if (top() != Layer::browser && top() != Layer::picker) return;
    if (listRowsRect().contains(toCanvas(window)) || kCard.contains(toCanvas(window)))
        scrollBy(-steps * kWheelRows);
}

PanelCursor PanelOverlays::cursorAt(CGPoint window) {
    const std::vector<Region> all = regions();
    const Region* hit = regionAt(all, toCanvas(window));
    if (!hit || hit->id == "card") return PanelCursor::arrow;
    if (hit->id == "field") return PanelCursor::text;
    if (hit->id == "slider") return PanelCursor::dragHorizontal;
    if (hit->id == "scroll") return PanelCursor::dragVertical;
    return PanelCursor::press;
}

void PanelOverlays::setBrightnessAt(double x) {
    const double t = std::clamp((x - kSlider.minX() - 7) / (kSlider.width() - 14), 0.0, 1.0);
    controller.onBrightnessSlider(AudioUnitViewController::kMinimumBrightness +
                                  t * (1 - AudioUnitViewController::kMinimumBrightness));
}

void PanelOverlays::setCaretAt(double x, bool extend) {
    if (alerts.empty() || !alerts.back().textField) return;
    TextField& field = *alerts.back().textField;
    const CGRect r = alertFieldRect();
    const double local = x - (r.minX() + 10) + fieldScroll;
    field.setCaret(text.indexAtOffset(field.text(), PanelFont::helveticaNeueMedium, 13, local),
                   extend);
    setNeedsDisplay();
}

void PanelOverlays::activate(const std::string& id) {
    FileViewControllerPresets& screen = controller.presetsViewController;
    if (id.rfind("action:", 0) == 0) return runAlertAction(std::stoul(id.substr(7)));
    if (id == "factory" || id == "user") {
        screen.showSet(id == "factory" ? PresetSet::factory : PresetSet::user);
        browserOffset = 0;
        if (screen.tableView.selectedRow)
            ensureVisible(*screen.tableView.selectedRow, Layer::browser);
    } else if (id == "close") {
        controller.dismissPresets();
    } else if (id == "load") {
        if (const auto row = screen.tableView.selectedRow) screen.tableView.didSelectRowAt(*row);
    } else if (id == "save") {
        screen.onSaveButton();
    } else if (id == "delete") {
        screen.onDeleteButton();
    } else if (id == "import") {
        screen.onImportButton();
    } else if (id == "export") {
        screen.onExportButton();
    } else if (id == "contrast") {
        controller.onContrastButton();
    } else if (id == "cancel") {
        closePicker();
    } else if (id == "confirm" && picker) {
        const bool ready = picker->mode() == FilePicker::Mode::openPresets
                               ? !picker->tickedFiles().empty()
                               : picker->chosenFolder().has_value();
        if (!ready) return;
        FilePicker chosen = std::move(*picker);
        closePicker();
        if (chosen.onConfirm) chosen.onConfirm(chosen);
    }
    setNeedsDisplay();
}

// ---- keys ------------------------------------------------------------------------------------

bool PanelOverlays::key(const PanelKeyEvent& e) {
    switch (top()) {
    case Layer::none:
        return false;
    case Layer::alert:
        return alertKey(e);
    case Layer::picker:
    case Layer::browser:
        return listKey(e);
    }
    return false;
}

bool PanelOverlays::alertKey(const PanelKeyEvent& e) {
    PanelAlert& a = alerts.back();
    TextField* field = a.textField ? &*a.textField : nullptr;
    switch (e.key) {
    case PanelKey::enter:
        if (a.defaultAction() >= 0) runAlertAction(std::size_t(a.defaultAction()));
        return true;
    case PanelKey::escape:
        if (a.cancelAction() >= 0) runAlertAction(std::size_t(a.cancelAction()));
        return true;
    default:
        break;
    }
    if (!field) return true;
    switch (e.key) {
    case PanelKey::text:
        if (e.control) {
            if (e.text == "a" || e.text == "A") field->selectAll();
        } else {
            field->insert(e.text);
        }
        break;
    case PanelKey::backspace:
        field->backspace();
        break;
    case PanelKey::deleteForward:
        field->deleteForward();
        break;
    case PanelKey::left:
        field->left(e.shift);
        break;
    case PanelKey::right:
        field->right(e.shift);
        break;
    case PanelKey::home:
    case PanelKey::up:
        field->home(e.shift);
        break;
    case PanelKey::end:
    case PanelKey::down:
        field->end(e.shift);
        break;
    default:
        break;
    }
    setNeedsDisplay();
    return true;
}

bool PanelOverlays::listKey(const PanelKeyEvent& e) {
    const bool isPicker = top() == Layer::picker;
    const std::size_t count = listCount();
    const std::optional<std::size_t> selected = listSelection();
    const std::size_t page = std::size_t(std::max(1, visibleRows(listRowsRect()) - 1));
    const std::vector<FileItem>& rows =
        isPicker ? picker->rows() : controller.presetsViewController.tableView.items();
    const FileItem* item = selected && *selected < rows.size() ? &rows[*selected] : nullptr;
    switch (e.key) {
    case PanelKey::up:
        if (count) setListSelection(selected && *selected > 0 ? *selected - 1 : 0);
        break;
    case PanelKey::down:
        if (count) setListSelection(selected ? *selected + 1 : 0);
        break;
    case PanelKey::pageUp:
        if (count) setListSelection(selected && *selected > page ? *selected - page : 0);
        break;
    case PanelKey::pageDown:
        if (count) setListSelection(selected ? *selected + page : page);
        break;
    case PanelKey::home:
        if (count) setListSelection(0);
        break;
    case PanelKey::end:
        if (count) setListSelection(count - 1);
        break;
    case PanelKey::right:
        if (item && item->isFolder() && !item->isExpanded) chooseListRow(*selected);
        break;
    case PanelKey::left:
        if (item && item->isFolder() && item->isExpanded && !(isPicker && *selected == 0)) {
            chooseListRow(*selected);
        } else if (item && item->depth > 0) {
            // To the folder this row lies in.
            for (std::size_t r = *selected; r-- > 0;)
                if (rows[r].depth < item->depth) {
                    setListSelection(r);
                    break;
                }
        }
        break;
    case PanelKey::enter:
        if (isPicker) {
            if (item && item->isFolder() && picker->mode() == FilePicker::Mode::openPresets &&
                *selected != 0) {
                chooseListRow(*selected);
            } else {
                if (item && picker->mode() == FilePicker::Mode::openPresets &&
                    picker->tickedFiles().empty() && item->kind == FileKind::preset)
                    picker->choose(*selected);
                activate("confirm");
            }
        } else if (selected) {
            chooseListRow(*selected);
        }
        break;
    case PanelKey::text:
        if (e.text == " " && selected) chooseListRow(*selected);
        break;
    case PanelKey::deleteForward:
    case PanelKey::backspace:
        if (!isPicker) controller.presetsViewController.onDeleteButton();
        break;
    case PanelKey::tab:
        if (!isPicker)
            activate(controller.presetsViewController.tableView.set() == PresetSet::factory
                         ? "user"
                         : "factory");
        break;
    case PanelKey::escape:
        if (isPicker)
            closePicker();
        else
            controller.dismissPresets();
        break;
    case PanelKey::other:
        return false;
    }
    setNeedsDisplay();
    return true;
}

// ---- drawing ---------------------------------------------------------------------------------

void PanelOverlays::draw(cairo_t* cr, const CGRect& bounds) {
    fitted = AudioUnitViewController::panelFrame(bounds);
    if (!isOpen()) return;
    cairo_save(cr);
    // The panel stays in sight behind, dimmed: the overlay belongs to it.
    cairo_rectangle(cr, bounds.minX(), bounds.minY(), bounds.width(), bounds.height());
    UIColor::black().withAlpha(0.5).set(cr);
    cairo_fill(cr);
    const CGRect& c = TAVSRChorusViewBase::kCanvas;
    cairo_translate(cr, fitted.minX(), fitted.minY());
    cairo_scale(cr, fitted.width() / c.width(), fitted.height() / c.height());
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    if (browserShown) drawBrowser(cr);
    if (picker) {
        if (browserShown) {
            cairo_rectangle(cr, 0, 0, c.width(), c.height());
            UIColor::black().withAlpha(0.3).set(cr);
            cairo_fill(cr);
        }
        drawPicker(cr);
    }
    if (!alerts.empty()) {
        if (browserShown || picker) {
            cairo_rectangle(cr, 0, 0, c.width(), c.height());
            UIColor::black().withAlpha(0.35).set(cr);
            cairo_fill(cr);
        }
        drawAlert(cr, alerts.back());
    }
    cairo_restore(cr);
}

void PanelOverlays::drawCard(cairo_t* cr, const CGRect& r) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    // A soft shadow under the card.
    for (int i = 6; i >= 1; --i) {
        roundedRect(cr, {r.minX() - i, r.minY() - i + 4, r.width() + 2 * i, r.height() + 2 * i},
                    8 + i);
        UIColor::black().withAlpha(0.045).set(cr);
        cairo_fill(cr);
    }
    roundedRect(cr, r, 8);
    cairo_pattern_t* plate = cairo_pattern_create_linear(0, r.minY(), 0, r.maxY());
    b.colorMain.mixed(UIColor::white(), 0.05).addStop(plate, 0);
    b.colorMain.addStop(plate, 0.4);
    b.colorMain.mixed(UIColor::black(), 0.07).addStop(plate, 1);
    cairo_set_source(cr, plate);
    cairo_fill_preserve(cr);
    cairo_pattern_destroy(plate);
    UIColor::systemGray().set(cr);
    cairo_set_line_width(cr, 2);
    cairo_stroke(cr);
    // A light edge along the top, as on the panel's keys.
    cairo_move_to(cr, r.minX() + 8, r.minY() + 1.75);
    cairo_line_to(cr, r.maxX() - 8, r.minY() + 1.75);
    UIColor::white().withAlpha(0.10).set(cr);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
}

void PanelOverlays::drawGlass(cairo_t* cr, const CGRect& r) {
    recessedGlass(cr, r, 6, controller.pluginView.baseClass.colorGrey, 14);
}

// The groove under a card's title row, as between the panel's sections.
void PanelOverlays::drawGroove(cairo_t* cr) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    cairo_set_line_width(cr, 1);
    b.colorContrast.withAlpha(0.14).set(cr);
    cairo_move_to(cr, kCard.minX() + 16, kGrooveY);
    cairo_line_to(cr, kCard.maxX() - 16, kGrooveY);
    cairo_stroke(cr);
    b.colorMain.mixed(UIColor::white(), 0.5).withAlpha(0.10).set(cr);
    cairo_move_to(cr, kCard.minX() + 16, kGrooveY + 1);
    cairo_line_to(cr, kCard.maxX() - 16, kGrooveY + 1);
    cairo_stroke(cr);
}

void PanelOverlays::drawButton(cairo_t* cr, const Region& region, const std::string& label,
                               bool selected, bool enabled) {
    TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const bool pressed = enabled && pressedId == region.id;
    const bool hover = enabled && hoverId == region.id && pressedId.empty();
    if (!enabled) cairo_push_group(cr);
    b.drawSymbolButton(cr, region.rect, ResizingBehavior::aspectFit, pressed, label, selected);
    if (hover) {
        roundedRect(cr, region.rect.insetBy(0.5, 0.5), 3);
        b.colorContrast.withAlpha(0.07).set(cr);
        cairo_fill(cr);
    }
    if (!enabled) {
        cairo_pop_group_to_source(cr);
        cairo_paint_with_alpha(cr, 0.35);
    }
}

void PanelOverlays::drawScrollbar(cairo_t* cr, const CGRect& rows, std::size_t count,
                                  double offset) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const double visible = rows.height() / kRowHeight;
    if (double(count) <= visible) return;
    const CGRect track{rows.maxX() - kScrollbarWidth - 2, rows.minY() + 3, kScrollbarWidth,
                       rows.height() - 6};
    roundedRect(cr, track, kScrollbarWidth / 2);
    b.colorContrast.withAlpha(0.08).set(cr);
    cairo_fill(cr);
    const double thumbHeight = std::max(24.0, track.height() * visible / double(count));
    const double travel = track.height() - thumbHeight;
    const double y = track.minY() + travel * offset / (double(count) - visible);
    roundedRect(cr, {track.minX() + 1, y + 1, track.width() - 2, thumbHeight - 2},
                (kScrollbarWidth - 2) / 2);
    (draggingThumb ? b.colorEmphasize : b.colorContrast.withAlpha(0.45)).set(cr);
    cairo_fill(cr);
}

void PanelOverlays::drawList(cairo_t* cr, const CGRect& rows, const std::vector<FileItem>& items,
                             std::optional<std::size_t> selected, double offset, bool ticks) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const UIColor& ink = b.colorContrast;
    const std::string& current = controller.presetsViewController.currentPath;
    const bool scrolls = double(items.size()) > rows.height() / kRowHeight;
    const double right = rows.maxX() - (scrolls ? kScrollbarWidth + 6 : 4);
    cairo_save(cr);
    cairo_rectangle(cr, rows.minX(), rows.minY(), rows.width(), rows.height());
    cairo_clip(cr);
    for (std::size_t i = std::size_t(std::max(0.0, std::floor(offset))); i < items.size(); ++i) {
        const double y = rows.minY() + (double(i) - offset) * kRowHeight;
        if (y >= rows.maxY()) break;
        const FileItem& item = items[i];
        const CGRect row{rows.minX() + 2, y, right - rows.minX() - 2, kRowHeight};
        const bool isSelected = selected && *selected == i;
        const bool isCurrent = !current.empty() && item.path == current;
        if (isSelected || (hoverRow && *hoverRow == i)) {
            roundedRect(cr, row.insetBy(0, 1), 3);
            ink.withAlpha(isSelected ? 0.13 : 0.06).set(cr);
            cairo_fill(cr);
        }
        if (isSelected) {
            roundedRect(cr, {row.minX() + 1, y + 5, 2.5, kRowHeight - 10}, 1.25);
            b.colorEmphasize.set(cr);
            cairo_fill(cr);
        }
        if (i + 1 < items.size()) {
            cairo_move_to(cr, row.minX() + 8, std::round(y + kRowHeight) - 0.5);
            cairo_line_to(cr, row.maxX() - 4, std::round(y + kRowHeight) - 0.5);
            ink.withAlpha(0.06).set(cr);
            cairo_set_line_width(cr, 1);
            cairo_stroke(cr);
        }
        const double x = row.minX() + 12 + 18 * item.depth;
        const double cy = y + kRowHeight / 2;
        double textX = x + 18;
        double textRight = row.maxX() - 10;
        if (item.isMore) {
            text.drawLineElided(cr, item.title(), PanelFont::helveticaNeue, 11,
                                {x, y, textRight - x, kRowHeight}, TextAlign::left,
                                ink.withAlpha(0.45));
            continue;
        }
        if (item.isFolder()) {
            // The disclosure triangle: right when closed, down when open.
            triangle(cr, x + 5, cy, 4, 6, item.isExpanded ? 180 : 90);
            (item.isExpanded ? b.colorEmphasize : ink.withAlpha(0.7)).set(cr);
            cairo_fill(cr);
            text.drawLine(cr, item.title(), PanelFont::condensedBlack, 12.5,
                          {textX, y, 1, kRowHeight}, TextAlign::left, ink);
            const double nameWidth =
                text.measure(item.title(), PanelFont::condensedBlack, 12.5).width;
            if (!item.info.empty() && textX + nameWidth + 40 < textRight)
                text.drawLineElided(
                    cr, item.info, PanelFont::helveticaNeue, 10.5,
                    {textX + nameWidth + 14, y, textRight - textX - nameWidth - 14, kRowHeight},
                    TextAlign::left, ink.withAlpha(0.55));
            continue;
        }
        if (ticks && item.kind == FileKind::preset) {
            const CGRect box{x, cy - 6, 12, 12};
            roundedRect(cr, box, 2.5);
            const bool on = picker && picker->isTicked(item.path);
            if (on) {
                b.colorEmphasize.set(cr);
                cairo_fill(cr);
                cairo_move_to(cr, box.minX() + 2.8, cy + 0.2);
                cairo_line_to(cr, box.minX() + 5.2, cy + 2.8);
                cairo_line_to(cr, box.maxX() - 2.6, cy - 3);
                UIColor::white().set(cr);
                cairo_set_line_width(cr, 1.8);
                cairo_stroke(cr);
            } else {
                ink.withAlpha(0.6).set(cr);
                cairo_set_line_width(cr, 1);
                cairo_stroke(cr);
            }
        } else if (item.isLoadable()) {
            // The preset's mark: a ring, lit for the preset loaded last.
            circle(cr, x + 5, cy, isCurrent ? 4.2 : 3.4);
            if (isCurrent) {
                b.colorEmphasize.set(cr);
                cairo_fill(cr);
            } else {
                ink.withAlpha(0.55).set(cr);
                cairo_set_line_width(cr, 1);
                cairo_stroke(cr);
            }
        }
        const bool supported = item.isLoadable();
        if (supported) {
            const char* kind = item.kind == FileKind::preset ? "AUPRESET" : "FULLSTATE";
            const double chip = text.measure(kind, PanelFont::condensedBlack, 8.5).width;
            text.drawLine(cr, kind, PanelFont::condensedBlack, 8.5,
                          {textRight - chip, y, chip, kRowHeight}, TextAlign::right,
                          ink.withAlpha(0.4));
            textRight -= chip + 12;
        }
        text.drawLineElided(cr, item.title(), PanelFont::helveticaNeueMedium, 12,
                            {textX, y, textRight - textX, kRowHeight}, TextAlign::left,
                            isCurrent ? b.colorEmphasize : ink.withAlpha(supported ? 1.0 : 0.45));
    }
    cairo_restore(cr);
    drawScrollbar(cr, rows, items.size(), offset);
}

const PanelOverlays::Preview& PanelOverlays::previewOf(const std::string& path) {
    std::error_code ec;
    const auto time = std::filesystem::last_write_time(path, ec);
    const long long stamp = ec ? 0 : (long long)(time.time_since_epoch().count());
    if (preview.path == path && preview.stamp == stamp) return preview;
    preview = Preview{};
    preview.path = path;
    preview.stamp = stamp;
    TAVPreset file(controller.log());
    file.patch->logs = false;
    if (!file.load(path)) {
        preview.reason = file.patch->failure;
        return preview;
    }
    EditorAudioUnit* unit = controller.audioUnit();
    if (unit && !file.checkDescription(unit->componentDescription(), 1)) {
        preview.reason = "it is a preset of another plug-in";
        return preview;
    }
    for (const auto& group : file.patch->groups)
        for (const auto& param : group->params)
            if (param->address < kParameterCount) {
                preview.values[param->address] = param->value;
                preview.has.set(param->address);
            }
    preview.ok = preview.has.any();
    if (!preview.ok) preview.reason = "it holds no parameter values";
    return preview;
}

void PanelOverlays::drawDetails(cairo_t* cr, const CGRect& r) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const UIColor& ink = b.colorContrast;
    const FileViewControllerPresets& screen = controller.presetsViewController;
    drawGlass(cr, r);
    const CGRect inner = r.insetBy(14, 10);
    const FileItem* item = screen.tableView.selectedItem();
    if (!item || item->isMore) {
        text.drawLine(cr, "No preset selected", PanelFont::condensedBlack, 15,
                      {inner.minX(), inner.minY(), inner.width(), 20}, TextAlign::left,
                      ink.withAlpha(0.6));
        text.drawWrapped(cr,
                         "Click a preset to load it, or move with the arrow keys and press "
                         "Enter. Folders open and close the same way.",
                         PanelFont::helveticaNeue, 10.5,
                         {inner.minX(), inner.minY() + 30, inner.width(), 60}, TextAlign::left,
                         ink.withAlpha(0.7));
        return;
    }
    const bool isCurrent = item->path == screen.currentPath;
    text.drawLineElided(cr, item->title(), PanelFont::condensedBlack, 15,
                        {inner.minX(), inner.minY(), inner.width(), 20}, TextAlign::left,
                        isCurrent ? b.colorEmphasize : ink);
    std::string kind = kindLabel(*item, screen.tableView.set());
    if (isCurrent) kind += " · loaded";
    text.drawLine(cr, kind, PanelFont::helveticaNeue, 10.5,
                  {inner.minX(), inner.minY() + 22, inner.width(), 14}, TextAlign::left,
                  ink.withAlpha(0.65));
    const CGRect below{inner.minX(), inner.minY() + 44, inner.width(), inner.height() - 44};
    if (item->isFolder() || !item->isLoadable()) {
        const std::string info =
            item->isFolder() ? item->info : "Only .aupreset and .fullstate files can be loaded.";
        if (!info.empty())
            text.drawWrapped(cr, info, PanelFont::helveticaNeue, 10.5, below, TextAlign::left,
                             ink.withAlpha(0.85));
        return;
    }
    const Preview& p = previewOf(item->path);
    if (!p.ok) {
        text.drawWrapped(cr, "Cannot be loaded: " + p.reason + ".", PanelFont::helveticaNeue, 10.5,
                         below, TextAlign::left, b.colorEmphasize);
        return;
    }
    // The settings as the panel shows them (0 to 98), two rows of six.
    auto shown = [&](std::uint64_t a) -> std::string {
        if (!p.has.test(a)) return "–";
        return std::to_string(int(std::lround(std::clamp(double(p.values[a]), 0.0, 1.0) * 98)));
    };
    struct Cell {
        const char* label;
        std::string value;
    };
    const Cell cells[12] = {
        {"RANGE", shown(kFrequencySplitLP) + "–" + shown(kFrequencySplitHP)},
        {"MIX", shown(kChorusDryWet)},
        {"DEPTH", shown(kChorusDepth)},
        {"DELAY", shown(kChorusDelay)},
        {"FEEDB.", shown(kChorusFeedback)},
        {"CROSS", shown(kChorusCross)},
        {"PAN", shown(kChorusPanning)},
        {"LFO", shown(kChorusLFOFrequency)},
        {"RAND.", shown(kChorusLFORandom)},
        {"SHAPE", shown(kChorusLFOType)},
        {"STEREO", shown(kChorusLFOStereo)},
        {"BYPASS", p.has.test(kBypass) ? (p.values[kBypass] != 0 ? "on" : "off") : "–"},
    };
    const double w = below.width() / 6;
    for (int i = 0; i < 12; ++i) {
        const double x = below.minX() + w * (i % 6);
        const double y = below.minY() + 2 + 28 * (i / 6);
        const CGRect cell{x, y, w - 3, 26};
        roundedRect(cr, cell, 3);
        ink.withAlpha(0.05).set(cr);
        cairo_fill(cr);
        text.drawLine(cr, cells[i].label, PanelFont::condensedBlack, 7.5,
                      {cell.minX(), cell.minY() + 1, cell.width(), 10}, TextAlign::center,
                      ink.withAlpha(0.5));
        text.drawLine(cr, cells[i].value, PanelFont::condensedBlack, 11,
                      {cell.minX(), cell.minY() + 11, cell.width(), 14}, TextAlign::center, ink);
    }
}

void PanelOverlays::drawSlider(cairo_t* cr, const CGRect& r, double value) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const double x0 = r.minX() + 7, x1 = r.maxX() - 7, cy = r.midY();
    const double x = x0 + (x1 - x0) * value;
    roundedRect(cr, {x0, cy - 1.5, x1 - x0, 3}, 1.5);
    b.colorContrast.withAlpha(0.18).set(cr);
    cairo_fill(cr);
    roundedRect(cr, {x0, cy - 1.5, x - x0, 3}, 1.5);
    b.colorEmphasize.set(cr);
    cairo_fill(cr);
    for (int i = 0; i <= 10; ++i) {
        const double tx = std::round(x0 + (x1 - x0) * i / 10) + 0.5;
        cairo_move_to(cr, tx, cy + 6);
        cairo_line_to(cr, tx, cy + (i % 5 == 0 ? 10 : 8));
    }
    b.colorContrast.withAlpha(0.25).set(cr);
    cairo_set_line_width(cr, 1);
    cairo_stroke(cr);
    circle(cr, x, cy + 0.8, 7);
    UIColor::black().withAlpha(0.3).set(cr);
    cairo_fill(cr);
    circle(cr, x, cy, 7);
    b.colorMain.mixed(UIColor::white(), 0.08).set(cr);
    cairo_fill_preserve(cr);
    (draggingSlider ? b.colorEmphasize : b.colorContrast).set(cr);
    cairo_set_line_width(cr, draggingSlider ? 1.2 : 0.6);
    cairo_stroke(cr);
    circle(cr, x, cy, 2);
    b.colorEmphasize.set(cr);
    cairo_fill(cr);
}

void PanelOverlays::drawTextField(cairo_t* cr, const CGRect& r, const TextField& field) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    drawGlass(cr, r);
    roundedRect(cr, r.insetBy(-1.5, -1.5), 7);
    b.colorEmphasize.withAlpha(0.55).set(cr);
    cairo_set_line_width(cr, 1.2);
    cairo_stroke(cr);
    const PanelFont font = PanelFont::helveticaNeueMedium;
    const double size = 13;
    const double width = r.width() - 20;
    // The text scrolls so that the caret stays in sight.
    const double caretX = text.offsetOfIndex(field.text(), font, size, field.caret());
    const double textWidth = text.measure(field.text(), font, size).width;
    if (textWidth <= width) fieldScroll = 0;
    if (caretX - fieldScroll > width) fieldScroll = caretX - width;
    if (caretX - fieldScroll < 0) fieldScroll = caretX;
    const double x = r.minX() + 10 - fieldScroll;
    cairo_save(cr);
    cairo_rectangle(cr, r.minX() + 6, r.minY(), r.width() - 12, r.height());
    cairo_clip(cr);
    if (field.hasSelection()) {
        const double s0 = text.offsetOfIndex(field.text(), font, size, field.selectionStart());
        const double s1 = text.offsetOfIndex(field.text(), font, size, field.selectionEnd());
        cairo_rectangle(cr, x + s0, r.minY() + 6, s1 - s0, r.height() - 12);
        b.colorEmphasize.withAlpha(0.38).set(cr);
        cairo_fill(cr);
    }
    text.drawLine(cr, field.text(), font, size, {x, r.minY(), std::max(1.0, textWidth), r.height()},
                  TextAlign::left, b.colorContrast);
    cairo_rectangle(cr, std::round((x + caretX) * 2) / 2 - 0.6, r.minY() + 6, 1.3, r.height() - 12);
    b.colorEmphasize.set(cr);
    cairo_fill(cr);
    cairo_restore(cr);
}

void PanelOverlays::drawBrowser(cairo_t* cr) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const UIColor& ink = b.colorContrast;
    const FileViewControllerPresets& screen = controller.presetsViewController;
    const FileTableViewPresets& table = screen.tableView;
    drawCard(cr, kCard);

    const double chorusWidth = text.measure("CHORUS ", PanelFont::condensedBlack, 22).width;
    text.drawLine(cr, "CHORUS", PanelFont::condensedBlack, 22, kTitle, TextAlign::left,
                  b.colorEmphasize);
    text.drawLine(cr, "PRESETS", PanelFont::condensedBlack, 22,
                  {kTitle.minX() + chorusWidth, kTitle.minY(), 120, kTitle.height()},
                  TextAlign::left, ink);
    drawGroove(cr);

    // The list, under its section title.
    drawGlass(cr, kList);
    const CGRect header{kList.minX() + 14, kList.minY(), kList.width() - 28, kListHeader};
    text.drawLine(cr, table.sectionTitle(), PanelFont::condensedBlack, 11, header, TextAlign::left,
                  ink.withAlpha(0.75));
    std::size_t presets = 0;
    for (const FileItem& item : table.items()) presets += item.isLoadable() ? 1 : 0;
    text.drawLine(cr, std::to_string(presets) + (presets == 1 ? " preset" : " presets") + " shown",
                  PanelFont::helveticaNeue, 10, header, TextAlign::right, ink.withAlpha(0.5));
    cairo_move_to(cr, kList.minX() + 8, kList.minY() + kListHeader + 0.5);
    cairo_line_to(cr, kList.maxX() - 8, kList.minY() + kListHeader + 0.5);
    ink.withAlpha(0.12).set(cr);
    cairo_stroke(cr);
    const CGRect rows = listRowsRect(Layer::browser);
    if (table.items().empty()) {
        const char* hint = table.set() == PresetSet::factory
                               ? "No factory presets were found in this folder."
                               : "No user presets yet. “Save As…” keeps the current settings "
                                 "here under a name of your choice.";
        text.drawWrapped(cr, hint, PanelFont::helveticaNeue, 11.5,
                         {rows.minX() + 60, rows.midY() - 16, rows.width() - 120, 40},
                         TextAlign::center, ink.withAlpha(0.6));
    } else {
        drawList(cr, rows, table.items(), table.selectedRow, browserOffset, false);
    }

    drawDetails(cr, kDetails);

    const FileItem* item = table.selectedItem();
    const bool loadable = item && item->isLoadable();
    for (const Region& region : regions(Layer::browser)) {
        for (const ButtonSpec& spec : kBrowserButtons) {
            if (region.id != spec.id) continue;
            const std::string id = spec.id;
            bool selected = false, enabled = true;
            if (id == "factory") selected = table.set() == PresetSet::factory;
            if (id == "user") selected = table.set() == PresetSet::user;
            if (id == "load" || id == "export") enabled = loadable;
            if (id == "delete") enabled = item && !item->isMore;
            drawButton(cr, region, spec.label, selected, enabled);
        }
    }

    text.drawLine(cr, "BRIGHTNESS", PanelFont::condensedBlack, 10, kBrightnessLabel,
                  TextAlign::left, ink.withAlpha(0.75));
    const double t = (controller.brightness - AudioUnitViewController::kMinimumBrightness) /
                     (1 - AudioUnitViewController::kMinimumBrightness);
    text.drawLine(cr, std::to_string(int(std::lround(controller.brightness * 100))) + " %",
                  PanelFont::helveticaNeue, 10,
                  {kSlider.maxX() - 80, kBrightnessLabel.minY(), 80, 14}, TextAlign::right,
                  ink.withAlpha(0.6));
    drawSlider(cr, kSlider, std::clamp(t, 0.0, 1.0));

    if (!controller.statusText.empty())
        text.drawLineElided(cr, controller.statusText, PanelFont::helveticaNeue, 10.5, kStatus,
                            TextAlign::left,
                            controller.statusIsError ? b.colorEmphasize : ink.withAlpha(0.75));
}

void PanelOverlays::drawPicker(cairo_t* cr) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const UIColor& ink = b.colorContrast;
    drawCard(cr, kCard);
    text.drawLine(cr, picker->title, PanelFont::condensedBlack, 22, {84, 34, 600, 24},
                  TextAlign::left, ink);
    drawGroove(cr);
    text.drawLineElided(cr, picker->prompt, PanelFont::helveticaNeue, 11, kPickerPrompt,
                        TextAlign::left, ink.withAlpha(0.8));
    drawGlass(cr, kPickerList);
    const bool ticks = picker->mode() == FilePicker::Mode::openPresets;
    drawList(cr, listRowsRect(Layer::picker), picker->rows(), picker->selectedRow, pickerOffset,
             ticks);

    std::string status;
    bool ready;
    if (ticks) {
        const std::size_t n = picker->tickedFiles().size();
        status = n == 0 ? "Tick the presets to import; each is loaded in turn."
                        : std::to_string(n) + (n == 1 ? " preset ticked." : " presets ticked.");
        ready = n > 0;
    } else {
        const std::optional<std::string> folder = picker->chosenFolder();
        status = folder ? "Into: " + *folder : "Select a folder.";
        ready = folder.has_value();
    }
    text.drawLineElided(cr, status, PanelFont::helveticaNeue, 10.5, kPickerStatus, TextAlign::left,
                        ink.withAlpha(0.75));
    for (const Region& region : regions(Layer::picker)) {
        if (region.id == "cancel") drawButton(cr, region, "Cancel", false, true);
        if (region.id == "confirm") drawButton(cr, region, picker->confirmTitle, true, ready);
    }
}

void PanelOverlays::drawAlert(cairo_t* cr, const PanelAlert& a) {
    const TAVSRChorusViewBase& b = controller.pluginView.baseClass;
    const UIColor& ink = b.colorContrast;
    const CGRect card = alertCard();
    drawCard(cr, card);
    // A thin accent along the top edge marks the alert as the thing to answer.
    roundedRect(cr, {card.minX() + kAlertPad, card.minY() + 10, 28, 3}, 1.5);
    b.colorEmphasize.set(cr);
    cairo_fill(cr);
    const double inner = kAlertWidth - 2 * kAlertPad;
    text.drawLineElided(cr, a.title, PanelFont::condensedBlack, 18,
                        {card.minX() + kAlertPad, card.minY() + 22, inner, 24}, TextAlign::left,
                        ink);
    text.drawWrapped(cr, a.message, PanelFont::helveticaNeue, 12,
                     {card.minX() + kAlertPad, card.minY() + 22 + 24 + 10, inner, 200},
                     TextAlign::left, ink.withAlpha(0.9));
    if (a.textField) drawTextField(cr, alertFieldRect(), *a.textField);
    const int def = a.defaultAction();
    for (const Region& region : alertRegions()) {
        if (region.id.rfind("action:", 0) != 0) continue;
        const std::size_t i = std::stoul(region.id.substr(7));
        drawButton(cr, region, a.actions[i].title, int(i) == def, true);
    }
}

} // namespace sr::editor
