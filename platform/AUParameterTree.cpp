#include "platform/AUParameterTree.h"

#include <cmath>
#include <cstdio>
#include <thread>

#include "platform/PrintQueue.h"

namespace {
std::atomic<AUParameterObserverToken> nextToken{1};
}

std::string AUParameterNode::keyPath() const {
    std::string path = identifier_;
    for (const AUParameterNode* n = parent; n && n->parent; n = n->parent)
        path = n->identifier_ + "." + path;
    return path;
}

namespace {
// How deep the current thread is in observer calls: a removal from inside one must not wait for
// the call it is part of.
thread_local int notifyDepth = 0;
} // namespace

// Slot states besides a live token: being emptied by a waiting removal, or given up from inside
// its own call and emptied by a later add.
constexpr AUParameterObserverToken kFree = 0;
constexpr AUParameterObserverToken kEmptying = ~AUParameterObserverToken(0);
constexpr AUParameterObserverToken kAbandoned = kEmptying - 1;

AUParameterObserverToken ParameterObserverSlots::add(AUParameterObserver observer) {
    std::lock_guard<std::mutex> lock(writers);
    for (Slot& slot : slots) {
        const AUParameterObserverToken state = slot.token.load();
        if (state != kFree && (state != kAbandoned || slot.callers.load() != 0)) continue;
        slot.observer = std::move(observer);
        const AUParameterObserverToken token = nextToken.fetch_add(1);
        slot.token.store(token); // publishes the observer
        return token;
    }
    return 0;
}

void ParameterObserverSlots::remove(AUParameterObserverToken token) {
    if (token == kFree || token >= kAbandoned) return;
    Slot* found = nullptr;
    {
        std::lock_guard<std::mutex> lock(writers);
        for (Slot& slot : slots)
            if (slot.token.load() == token) found = &slot;
        if (!found) return;
        if (notifyDepth > 0) {
            // Inside an observer call (maybe this very one): it cannot be waited for here.
            found->token.store(kAbandoned);
            return;
        }
        found->token.store(kEmptying);
    }
    // Calls that saw the token before it changed finish first; waited for without the lock, so
    // an observer running meanwhile may still add or remove others.
    while (found->callers.load() != 0) std::this_thread::yield();
    std::lock_guard<std::mutex> lock(writers);
    found->observer = nullptr;
    found->token.store(kFree);
}

void ParameterObserverSlots::notify(AUParameterAddress address, AUValue value,
                                    AUParameterObserverToken originator) const {
    ++notifyDepth;
    for (const Slot& slot : slots) {
        const AUParameterObserverToken token = slot.token.load();
        if (token == kFree || token >= kAbandoned || token == originator) continue;
        // Counted before the token is checked again: a removal either sees this call and waits
        // for it, or this call sees the removal and skips the slot.
        slot.callers.fetch_add(1);
        if (slot.token.load() == token) slot.observer(address, value);
        slot.callers.fetch_sub(1);
    }
    --notifyDepth;
}

AUParameterObserverToken AUParameterNode::tokenByAddingParameterObserver(AUParameterObserver o) {
    const AUParameterObserverToken token = observers.add(std::move(o));
    if (token == 0)
        logChannel().debugprint(
            "AUParameterTree : ERROR: too many parameter observers, one was refused\n");
    return token;
}

sr::LogChannel& AUParameterNode::logChannel() const {
    const auto* found = findImplementor(&AUParameterNode::log);
    return found ? **found : sr::standardLog();
}

void AUParameterNode::removeParameterObserver(AUParameterObserverToken token) {
    observers.remove(token);
}

void AUParameterNode::notifyObservers(AUParameterAddress address, AUValue value,
                                      AUParameterObserverToken originator) {
    for (AUParameterNode* n = this; n; n = n->parent)
        n->observers.notify(address, value, originator);
}

AUParameter::AUParameter(std::string identifier, std::string name, AUParameterAddress address,
                         AUValue min, AUValue max, AudioUnitParameterUnit unit,
                         std::string unitName, std::uint32_t flags,
                         std::vector<std::string> valueStrings,
                         std::vector<AUParameterAddress> dependentParameters)
    : AUParameterNode(std::move(identifier), std::move(name)), address_(address), min_(min),
      max_(max), unit_(unit), unitName_(std::move(unitName)), flags_(flags),
      valueStrings_(std::move(valueStrings)), dependents_(std::move(dependentParameters)),
      value_(min) {}

AUValue AUParameter::implementorValue() const {
    if (const auto* provider = findImplementor(&AUParameterNode::implementorValueProvider))
        return (*provider)(const_cast<AUParameter*>(this));
    return value();
}

bool AUParameter::store(AUValue& v) {
    if (!std::isfinite(v)) {
        sr::LineBuilder<> line;
        line << "AUParameter::setValue : ERROR: non-finite value refused for '" << identifier_
             << "'\n";
        logChannel().debugprint(line.view());
        return false;
    }
    v = v < min_ ? min_ : (v > max_ ? max_ : v);
    value_.store(v, std::memory_order_relaxed);
    if (treeValueChanges) treeValueChanges->fetch_add(1, std::memory_order_release);
    return true;
}

bool AUParameter::setValue(AUValue v, AUParameterObserverToken originator) {
    if (!store(v)) return false;
    if (const auto* observer = findImplementor(&AUParameterNode::implementorValueObserver))
        (*observer)(this, v);
    notifyObservers(address_, v, originator);
    return true;
}

bool AUParameter::setValueFromImplementor(AUValue v, AUParameterObserverToken originator) {
    if (!store(v)) return false;
    notifyObservers(address_, v, originator);
    return true;
}

std::string AUParameter::stringFromValue(const AUValue* v) const {
    if (const auto* cb = findImplementor(&AUParameterNode::implementorStringFromValueCallback))
        return (*cb)(const_cast<AUParameter*>(this), v);
    return formatParameterValue("%g", v ? *v : value());
}

AUParameterGroup::AUParameterGroup(std::string identifier, std::string name,
                                   std::vector<std::unique_ptr<AUParameterNode>> children)
    : AUParameterNode(std::move(identifier), std::move(name)), children_(std::move(children)) {
    for (auto& child : children_) child->parent = this;
}

std::vector<AUParameter*> AUParameterGroup::allParameters() const {
    std::vector<AUParameter*> result;
    for (const auto& child : children_) {
        if (auto* p = dynamic_cast<AUParameter*>(child.get())) {
            result.push_back(p);
        } else if (auto* g = dynamic_cast<AUParameterGroup*>(child.get())) {
            auto below = g->allParameters();
            result.insert(result.end(), below.begin(), below.end());
        }
    }
    return result;
}

AUParameterTree::AUParameterTree(std::vector<std::unique_ptr<AUParameterNode>> children)
    : AUParameterGroup("", "", std::move(children)) {
    for (AUParameter* p : allParameters()) {
        p->treeValueChanges = &valueChanges;
        if (p->address() >= byAddress.size()) byAddress.resize(p->address() + 1, nullptr);
        if (!byAddress[p->address()]) byAddress[p->address()] = p;
    }
}

AUParameter* AUParameterTree::parameterWithAddress(AUParameterAddress address) const {
    return address < byAddress.size() ? byAddress[address] : nullptr;
}

AUParameter* AUParameterTree::parameterWithIdentifier(const std::string& identifier) const {
    for (AUParameter* p : allParameters())
        if (p->identifier() == identifier) return p;
    return nullptr;
}

std::unique_ptr<AUParameter> AUParameterTree::createParameterWithIdentifier(
    const std::string& identifier, const std::string& name, AUParameterAddress address, AUValue min,
    AUValue max, AudioUnitParameterUnit unit, const std::string& unitName, std::uint32_t flags,
    std::vector<std::string> valueStrings, std::vector<AUParameterAddress> dependentParameters) {
    return std::make_unique<AUParameter>(identifier, name, address, min, max, unit, unitName, flags,
                                         std::move(valueStrings), std::move(dependentParameters));
}

std::unique_ptr<AUParameterGroup>
AUParameterTree::createGroupWithIdentifier(const std::string& identifier, const std::string& name,
                                           std::vector<std::unique_ptr<AUParameterNode>> children) {
    return std::make_unique<AUParameterGroup>(identifier, name, std::move(children));
}

std::unique_ptr<AUParameterTree>
AUParameterTree::createTreeWithChildren(std::vector<std::unique_ptr<AUParameterNode>> children) {
    return std::make_unique<AUParameterTree>(std::move(children));
}

std::string formatParameterValue(const std::string& format, AUValue value) {
    std::string out;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            out += format[i];
            continue;
        }
        // Collect one conversion: flags, width and precision, then the conversion letter.
        std::size_t j = i + 1;
        while (j < format.size() &&
               std::string_view("-+ #0123456789.").find(format[j]) != std::string_view::npos)
            ++j;
        if (j >= format.size()) break; // dangling '%': nothing
        const char conv = format[j];
        const std::string spec = format.substr(i, j - i);
        char buffer[128] = {};
        if (conv == '%') {
            out += '%';
        } else if (conv == 'f' || conv == 'g' || conv == 'e' || conv == 'F' || conv == 'G' ||
                   conv == 'E') {
            std::snprintf(buffer, sizeof buffer, (spec + conv).c_str(), double(value));
            out += buffer;
        } else if (conv == 'd' || conv == 'i') {
            const double d = std::isfinite(value) ? std::trunc(double(value)) : 0.0;
            std::snprintf(buffer, sizeof buffer, (spec + "lld").c_str(), (long long)d);
            out += buffer;
        }
        i = j;
    }
    return out;
}
