#include "util/SDO.h"

#include <array>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace SDO {

namespace {

// What an empty blob's data points at. A writable array only because the field is a char*;
// nothing ever writes to it, and its address is how an empty blob is recognised.
char nullText[] = "(null*)";
const char outOfMemory[] = "(out of memory)";

std::atomic<int> dataCount{0};
std::atomic<int> stringCount{0};

// The encoding result of this thread. A plain pointer (trivially destructible) so that it can
// still be reached from CData destructors that run after this thread's guard has gone, e.g.
// objects with static storage destroyed at exit.
thread_local char* scratchResult = nullptr;

void freeScratch() {
    std::free(scratchResult);
    scratchResult = nullptr;
}

// Frees the scratch text when a thread that still holds one ends.
struct ScratchGuard {
    bool armed = false;
    ~ScratchGuard() { freeScratch(); }
};
thread_local ScratchGuard scratchGuard;

// Takes ownership of a fresh encoding (null when it could not be obtained) and retires the
// previous one, so that only one result per thread is alive.
const char* publish(char* text) {
    freeScratch();
    if (!text) return outOfMemory;
    scratchGuard.armed = true; // odr-use registers the guard's destructor for this thread
    scratchResult = text;
    return text;
}

// A zero-filled block, or null when either factor is zero or memory is short.
char* obtainBlock(std::size_t bytes) {
    if (bytes == 0) return nullptr;
    return static_cast<char*>(std::calloc(bytes, 1));
}

constexpr std::array<std::array<char, 2>, 256> makeHexTable() {
    constexpr char digits[] = "0123456789ABCDEF";
    std::array<std::array<char, 2>, 256> table{};
    for (int i = 0; i < 256; ++i) {
        table[static_cast<std::size_t>(i)] = {digits[i >> 4], digits[i & 15]};
    }
    return table;
}
constexpr auto hexTable = makeHexTable();

char* putHex(char* out, unsigned char byte) {
    *out++ = hexTable[byte][0];
    *out++ = hexTable[byte][1];
    return out;
}

// Writes the bytes as "0x0A 0x1B" (no trailing space) and returns the end of the text.
char* putHex5(char* out, const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        if (i) *out++ = ' ';
        *out++ = '0';
        *out++ = 'x';
        out = putHex(out, bytes[i]);
    }
    return out;
}

// Copies a constant text into a fresh result.
const char* publishCopy(const char* text) {
    char* block = obtainBlock(std::strlen(text) + 1);
    if (block) std::memcpy(block, text, std::strlen(text));
    return publish(block);
}

char* putTabs(char* out, std::size_t count) {
    std::memset(out, '\t', count);
    return out + count;
}

char* putText(char* out, const char* text) {
    std::size_t n = std::strlen(text);
    std::memcpy(out, text, n);
    return out + n;
}

// Length of a text handed to a string; our own empty marker counts as no text, so that
// assigning an empty string's Data() to another string keeps it empty.
int textLength(const char* text) {
    if (!text || text == nullText) return 0;
    std::size_t n = std::strlen(text);
    return n > static_cast<std::size_t>(INT_MAX) ? -1 : static_cast<int>(n);
}

constexpr const char* controlNames[32] = {
    "<NUL>", "<SOH>", "<STX>", "<ETX>", "<EOT>", "<ENQ>", "<ACK>", "<BEL>",
    "<BS>",  "\t",    "\n",    "<VT>",  "<FF>",  "\r",    "<SO>",  "<SI>",
    "<DLE>", "<DC1>", "<DC2>", "<DC3>", "<DC4>", "<NAK>", "<SYN>", "<ETB>",
    "<CAN>", "<EM>",  "<SUB>", "<ESC>", "<FS>",  "<GS>",  "<RS>",  "<US>"};

constexpr std::array<std::array<char, 2>, 256> makeSingleChars() {
    std::array<std::array<char, 2>, 256> table{};
    for (int i = 0; i < 256; ++i) {
        table[static_cast<std::size_t>(i)] = {static_cast<char>(i), '\0'};
    }
    return table;
}
constexpr auto singleChars = makeSingleChars();

} // namespace

int Padding(int n) {
    // n + 1 rounded up to 4; sizes that cannot be represented get no block at all.
    if (n < 1 || n > INT_MAX - 4) return 0;
    return (n + 4) & ~3;
}

// ---------------------------------------------------------------------------------------------
// CData

CData::CData(const char* name) : className(name), data(nullText), length(0) {
    dataCount.fetch_add(1, std::memory_order_relaxed);
}

CData::CData() : CData("CData") {}

CData::CData(const CData& other) : CData("CData") {
    Assign(other.data, other.length);
}

CData& CData::operator=(const CData& other) {
    if (this != &other) Assign(other.data, other.length);
    return *this;
}

CData::~CData() {
    if (data != nullText) std::free(data);
    // The last blob takes this thread's scratch text with it.
    if (dataCount.fetch_sub(1, std::memory_order_acq_rel) == 1) freeScratch();
}

int CData::ObjectSize() const {
    return static_cast<int>(sizeof(CData)) + DataSize();
}

int CData::ClassCount() {
    return dataCount.load(std::memory_order_relaxed);
}

const char* CData::String() const {
    return data;
}

bool CData::Assign(const void* bytes, int count) {
    if (count <= 0) {
        if (data != nullText) std::free(data);
        data = nullText;
        length = 0;
        return true;
    }
    if (!bytes) return false;
    char* block = obtainBlock(static_cast<std::size_t>(Padding(count)));
    if (!block) return false;
    // Copy before releasing: the bytes may be our own.
    std::memcpy(block, bytes, static_cast<std::size_t>(count));
    if (data != nullText) std::free(data);
    data = block;
    length = count;
    return true;
}

bool CData::Append(const void* bytes, int count) {
    if (count <= 0) return true;
    if (!bytes || count > INT_MAX - length) return false;
    int total = length + count;
    char* block = obtainBlock(static_cast<std::size_t>(Padding(total)));
    if (!block) return false;
    std::memcpy(block, data, static_cast<std::size_t>(length));
    std::memcpy(block + length, bytes, static_cast<std::size_t>(count));
    if (data != nullText) std::free(data);
    data = block;
    length = total;
    return true;
}

const char* CData::Hex2() const {
    if (length == 0) return publishCopy("00");
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    const auto n = static_cast<std::size_t>(length);
    char* block = obtainBlock(2 * n + 1);
    if (!block) return publish(nullptr);
    char* out = block;
    for (std::size_t i = 0; i < n; ++i) out = putHex(out, bytes[i]);
    return publish(block);
}

const char* CData::Hex3() const {
    if (length == 0) return publishCopy("00");
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    const auto n = static_cast<std::size_t>(length);
    char* block = obtainBlock(3 * n);
    if (!block) return publish(nullptr);
    char* out = block;
    for (std::size_t i = 0; i < n; ++i) {
        out = putHex(out, bytes[i]);
        *out++ = ' ';
    }
    out[-1] = '\0';
    return publish(block);
}

const char* CData::Hex4() const {
    if (length == 0) return publishCopy("#00");
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    const auto n = static_cast<std::size_t>(length);
    char* block = obtainBlock(4 * n);
    if (!block) return publish(nullptr);
    char* out = block;
    for (std::size_t i = 0; i < n; ++i) {
        if (i) *out++ = ' ';
        *out++ = '#';
        out = putHex(out, bytes[i]);
    }
    return publish(block);
}

const char* CData::Hex5() const {
    if (length == 0) return publishCopy("0x00");
    const auto n = static_cast<std::size_t>(length);
    char* block = obtainBlock(5 * n);
    if (!block) return publish(nullptr);
    putHex5(block, reinterpret_cast<const unsigned char*>(data), n);
    return publish(block);
}

const char* CData::ColorRGB() const {
    if (length == 0) return publishCopy("#000000");
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    const auto n = static_cast<std::size_t>(length);
    char* block = obtainBlock(2 * n + 2);
    if (!block) return publish(nullptr);
    char* out = block;
    *out++ = '#';
    for (std::size_t i = 0; i < n; ++i) out = putHex(out, bytes[i]);
    return publish(block);
}

const char* CData::XML(int indent) const {
    if (length == 0) return publishCopy("<CData>\n\tundefined</CData>");
    static constexpr char open[] = "<CData encoding='HEX5'>\n\t";
    static constexpr char close[] = "</CData>\n";
    const auto tabs = static_cast<std::size_t>(indent > 0 ? indent : 0);
    const auto n = static_cast<std::size_t>(length);
    // Three runs of tabs, the two tags, 5n - 1 characters of hex, a line feed, the end of text.
    char* block = obtainBlock(3 * tabs + (sizeof open - 1) + (sizeof close - 1) + 5 * n + 1);
    if (!block) return publish(nullptr);
    char* out = putTabs(block, tabs);
    out = putText(out, open);
    out = putTabs(out, tabs);
    out = putHex5(out, reinterpret_cast<const unsigned char*>(data), n);
    *out++ = '\n';
    out = putTabs(out, tabs);
    putText(out, close);
    return publish(block);
}

// ---------------------------------------------------------------------------------------------
// CString

CString::CString() : CData("CString") {
    stringCount.fetch_add(1, std::memory_order_relaxed);
}

CString::CString(const char* text) : CString() {
    *this = text;
}

CString::CString(const CString& other) : CString() {
    Assign(other.data, other.length);
}

CString& CString::operator=(const CString& other) {
    if (this != &other) Assign(other.data, other.length);
    return *this;
}

CString::~CString() {
    stringCount.fetch_sub(1, std::memory_order_relaxed);
}

CString& CString::operator=(const char* text) {
    int n = textLength(text);
    if (n >= 0) Assign(text, n);
    return *this;
}

CString& CString::operator+=(const char* text) {
    int n = textLength(text);
    if (n > 0) Append(text, n);
    return *this;
}

CString& CString::operator+=(int number) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%d", number);
    return *this += digits;
}

bool CString::operator!=(const char* text) const {
    if (!text) return true;
    return std::strcmp(String(), text) != 0;
}

int CString::StringCount() {
    return stringCount.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------------
// CPointerList

CPointerList::CPointerList() = default;

CPointerList::~CPointerList() {
    Clear();
}

void CPointerList::Push(void* pointer) {
    if (!pointer) return;
    Item* item = new (std::nothrow) Item{pointer, tail, nullptr};
    if (!item) return;
    if (tail) {
        tail->next = item;
    } else {
        head = item;
    }
    tail = item;
    cursor = item;
    ++count;
}

void CPointerList::Rewind() {
    cursor = head;
}

void* CPointerList::Next() {
    if (!cursor) return nullptr;
    void* pointer = cursor->pointer;
    cursor = cursor->next;
    return pointer;
}

void CPointerList::Delete(void* pointer) {
    Item* item = head;
    while (item && item->pointer != pointer) item = item->next;
    if (!item) return;
    if (item->previous) {
        item->previous->next = item->next;
    } else {
        head = item->next;
    }
    if (item->next) {
        item->next->previous = item->previous;
    } else {
        tail = item->previous;
    }
    // A walk that stands on the removed item carries on with its successor.
    if (cursor == item) cursor = item->next;
    delete item;
    --count;
}

void CPointerList::Clear() {
    Item* item = head;
    while (item) {
        Item* next = item->next;
        delete item;
        item = next;
    }
    head = tail = cursor = nullptr;
    count = 0;
}

// ---------------------------------------------------------------------------------------------
// CPrinTable

const char* CPrinTable::operator[](unsigned char byte) const {
    if (byte < 32) return controlNames[byte];
    return singleChars[byte].data();
}

} // namespace SDO
