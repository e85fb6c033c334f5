#include "util/BaseClass.h"

#include <atomic>
#include <mutex>

namespace {

// The process-wide object list. Reached through a function so that it exists before the first
// object is built, whatever the order of static initialisation; every constructor touches it,
// so it also outlives every object with static storage.
struct ObjectList {
    std::mutex mutex;
    SDO::CPointerList list;
};

ObjectList& objectList() {
    static ObjectList instance;
    return instance;
}

// Objects alive now; plug-in instances may be built and torn down on different threads.
std::atomic<int> instanceCount{0};

} // namespace

BaseClass::BaseClass()
    : list(&objectList().list), name("*"), path("*"),
      uniqueAddress(instanceCount.fetch_add(1, std::memory_order_relaxed)) {}

// Does not unregister: a class that registers itself removes itself.
BaseClass::~BaseClass() {
    instanceCount.fetch_sub(1, std::memory_order_relaxed);
}

float BaseClass::getMinValue(int) {
    return 0.0f;
}
float BaseClass::getMaxValue(int) {
    return 1.0f;
}
float BaseClass::getDefaultValue(int) {
    return 0.5f;
}
int BaseClass::getUniqueAddress() {
    return uniqueAddress;
}

// Nothing in the plug-in stores values through these strings.
void BaseClass::setValuesFromString(const char*) {}
const char* BaseClass::getValuesAsString() {
    return "";
}

void BaseClass::setName(const char* text) {
    name = text;
}
void BaseClass::setPath(const char* text) {
    path = text;
}

void BaseClass::registerObject(BaseClass* object) {
    // An empty name is tested directly: CString's comparison sees an empty string as
    // "(null*)", which would let it through.
    if (!object || object->name.Empty() || !(object->name != "*")) return;
    ObjectList& objects = objectList();
    std::lock_guard<std::mutex> lock(objects.mutex);
    objects.list.Push(object);
}

void BaseClass::unregisterObject(BaseClass* object) {
    if (!object) return;
    ObjectList& objects = objectList();
    std::lock_guard<std::mutex> lock(objects.mutex);
    // Every entry before the cursor has been checked, so the first match Delete finds is the
    // one just returned and the walk goes on undisturbed.
    objects.list.Rewind();
    while (void* entry = objects.list.Next()) {
        if (entry == object) objects.list.Delete(entry);
    }
}

int BaseClass::instanceCountNow() {
    return instanceCount.load(std::memory_order_relaxed);
}

int BaseClass::registeredCount() {
    ObjectList& objects = objectList();
    std::lock_guard<std::mutex> lock(objects.mutex);
    return objects.list.Count();
}
