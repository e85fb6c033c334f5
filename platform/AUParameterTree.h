// The parameter tree a host sees: parameters in groups, observers with tokens, and the
// implementor callbacks through which the audio unit connects the tree to its kernel.
// Threading: values may be set on any thread, the render thread included (a plug-in host may
// run main-queue tasks there): setting a value and notifying observers never locks or
// allocates. Building the tree and adding or removing observers happen off the render thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/AudioTypes.h"

enum AudioUnitParameterUnit : std::uint32_t {
    kAudioUnitParameterUnit_Generic = 0,
    kAudioUnitParameterUnit_Indexed = 1,
    kAudioUnitParameterUnit_Boolean = 2,
};

enum AudioUnitParameterOptions : std::uint32_t {
    kAudioUnitParameterFlag_IsReadable = 0x40000000u,
    kAudioUnitParameterFlag_IsWritable = 0x80000000u,
};

namespace sr {
class LogChannel;
}

class AUParameter;
class AUParameterGroup;
class AUParameterTree;

using AUParameterObserverToken = std::uint64_t;
using AUParameterObserver = std::function<void(AUParameterAddress, AUValue)>;
using AUImplementorValueObserver = std::function<void(AUParameter*, AUValue)>;
using AUImplementorValueProvider = std::function<AUValue(AUParameter*)>;
// The value to format, or null for the parameter's current value.
using AUImplementorStringFromValueCallback =
    std::function<std::string(AUParameter*, const AUValue* value)>;

// The observers of one node, in a fixed number of slots. Notifying only reads atomics, so it is
// real-time safe; adding and removing are serialised among themselves. An observer may add or
// remove observers, itself included, from inside its own call.
class ParameterObserverSlots {
public:
    static constexpr std::size_t kCapacity = 16;

    // 0 when every slot is taken.
    AUParameterObserverToken add(AUParameterObserver observer);
    void remove(AUParameterObserverToken token);
    void notify(AUParameterAddress address, AUValue value,
                AUParameterObserverToken originator) const;

private:
    struct Slot {
        std::atomic<AUParameterObserverToken> token{0}; // 0: free
        mutable std::atomic<int> callers{0};
        AUParameterObserver observer;
    };
    std::mutex writers;
    Slot slots[kCapacity];
};

class AUParameterNode {
public:
    virtual ~AUParameterNode() = default;
    AUParameterNode(const AUParameterNode&) = delete;
    AUParameterNode& operator=(const AUParameterNode&) = delete;

    const std::string& identifier() const { return identifier_; }
    const std::string& displayName() const { return displayName_; }
    // Identifiers from the root, joined by dots.
    std::string keyPath() const;
    AUParameterNode* parentNode() const { return parent; }

    // Implementor callbacks apply to this node and every node below that has none of its own.
    AUImplementorValueObserver implementorValueObserver;
    AUImplementorValueProvider implementorValueProvider;
    AUImplementorStringFromValueCallback implementorStringFromValueCallback;

    // Where this node and every node below that has none of its own log (standard output when
    // none has one). The channel must outlive the nodes.
    sr::LogChannel* log = nullptr;
    sr::LogChannel& logChannel() const;

    // Observers see every value change of a parameter at or below this node.
    AUParameterObserverToken tokenByAddingParameterObserver(AUParameterObserver observer);
    void removeParameterObserver(AUParameterObserverToken token);

protected:
    AUParameterNode(std::string identifier, std::string name)
        : identifier_(std::move(identifier)), displayName_(std::move(name)) {}

    friend class AUParameterGroup;
    friend class AUParameter;
    void notifyObservers(AUParameterAddress address, AUValue value,
                         AUParameterObserverToken originator);
    template <typename Callback>
    const Callback* findImplementor(Callback AUParameterNode::*member) const {
        for (const AUParameterNode* n = this; n; n = n->parent)
            if (n->*member) return &(n->*member);
        return nullptr;
    }

    std::string identifier_;
    std::string displayName_;
    AUParameterNode* parent = nullptr;
    ParameterObserverSlots observers;
};

class AUParameter : public AUParameterNode {
public:
    AUParameter(std::string identifier, std::string name, AUParameterAddress address, AUValue min,
                AUValue max, AudioUnitParameterUnit unit, std::string unitName, std::uint32_t flags,
                std::vector<std::string> valueStrings,
                std::vector<AUParameterAddress> dependentParameters);

    AUParameterAddress address() const { return address_; }
    AUValue minValue() const { return min_; }
    AUValue maxValue() const { return max_; }
    AudioUnitParameterUnit unit() const { return unit_; }
    const std::string& unitName() const { return unitName_; }
    std::uint32_t flags() const { return flags_; }
    const std::vector<std::string>& valueStrings() const { return valueStrings_; }
    const std::vector<AUParameterAddress>& dependentParameters() const { return dependents_; }

    // The value last set on this object (its default until then).
    AUValue value() const { return value_.load(std::memory_order_relaxed); }
    // The implementor's own current value, through its value provider when there is one.
    AUValue implementorValue() const;
    // Sets the value (clamped to [min, max]; a non-finite value is refused with a log line and
    // false), tells the implementor and every observer except the originator.
    bool setValue(AUValue value, AUParameterObserverToken originator = 0);
    // Same, without calling the implementor: for values that come from the implementor itself.
    bool setValueFromImplementor(AUValue value, AUParameterObserverToken originator = 0);
    std::string stringFromValue(const AUValue* value) const;

private:
    friend class AUParameterTree;
    bool store(AUValue& value);

    AUParameterAddress address_;
    AUValue min_, max_;
    AudioUnitParameterUnit unit_;
    std::string unitName_;
    std::uint32_t flags_;
    std::vector<std::string> valueStrings_;
    std::vector<AUParameterAddress> dependents_;
    std::atomic<AUValue> value_{0.0f};
    // The tree's count of value changes, when this parameter is in one.
    std::atomic<std::uint64_t>* treeValueChanges = nullptr;
};

class AUParameterGroup : public AUParameterNode {
public:
    AUParameterGroup(std::string identifier, std::string name,
                     std::vector<std::unique_ptr<AUParameterNode>> children);

    const std::vector<std::unique_ptr<AUParameterNode>>& children() const { return children_; }
    // Every parameter below this group, depth first in child order.
    std::vector<AUParameter*> allParameters() const;

private:
    std::vector<std::unique_ptr<AUParameterNode>> children_;
};

class AUParameterTree : public AUParameterGroup {
public:
    explicit AUParameterTree(std::vector<std::unique_ptr<AUParameterNode>> children);

    AUParameter* parameterWithAddress(AUParameterAddress address) const;
    // Any thread: a count that moves on every value set on a parameter of the tree, so a
    // reader can tell cheaply that nothing changed since it last looked.
    std::uint64_t valueChangeCount() const { return valueChanges.load(std::memory_order_acquire); }
    AUParameter* parameterWithIdentifier(const std::string& identifier) const;

    static std::unique_ptr<AUParameter>
    createParameterWithIdentifier(const std::string& identifier, const std::string& name,
                                  AUParameterAddress address, AUValue min, AUValue max,
                                  AudioUnitParameterUnit unit, const std::string& unitName,
                                  std::uint32_t flags, std::vector<std::string> valueStrings,
                                  std::vector<AUParameterAddress> dependentParameters);
    static std::unique_ptr<AUParameterGroup>
    createGroupWithIdentifier(const std::string& identifier, const std::string& name,
                              std::vector<std::unique_ptr<AUParameterNode>> children);
    static std::unique_ptr<AUParameterTree>
    createTreeWithChildren(std::vector<std::unique_ptr<AUParameterNode>> children);

private:
    std::vector<AUParameter*> byAddress;
    std::atomic<std::uint64_t> valueChanges{0};
};

// printf-style formatting of one float with a host-supplied format. Conversions f, g, e and d
// are honoured; a lone '%' with no conversion prints nothing, as the platform's formatter does.
std::string formatParameterValue(const std::string& format, AUValue value);
