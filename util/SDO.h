// Small utility classes of the effect side: byte blobs, strings, pointer lists and a
// printable-name table. Construction and destruction are not real-time safe; nothing here
// is used on the render thread.
#pragma once

#include <cstddef>

namespace SDO {

// Bytes reserved for a blob of n bytes: room for a terminating zero, rounded up to 4.
int Padding(int n);

class CData {
public:
    CData();
    CData(const CData& other);
    CData& operator=(const CData& other);
    virtual ~CData();

    int Length() const { return length; }
    bool Empty() const { return length == 0; }
    int DataSize() const { return Padding(length); }
    virtual int ObjectSize() const;
    const char* ClassName() const { return className; }
    static int ClassCount();

    // The string view of the data ("(null*)" when empty).
    virtual const char* String() const;

    // Encodings of the bytes in order, upper-case hex. Each call invalidates the result of the
    // previous encoding call on the same thread.
    const char* Hex2() const;
    const char* Hex3() const;
    const char* Hex4() const;
    const char* Hex5() const;
    const char* ColorRGB() const;
    const char* XML(int indent) const;

    // Replaces the content with a copy of the bytes; false (content unchanged) when no block.
    bool Assign(const void* bytes, int count);
    // Appends bytes; false (content unchanged) when no block.
    bool Append(const void* bytes, int count);

protected:
    explicit CData(const char* name);

    const char* className;
    char* data;
    int length;
};

class CString : public CData {
public:
    CString();
    CString(const char* text);
    CString(const CString& other);
    CString& operator=(const CString& other);
    ~CString() override;

    CString& operator=(const char* text);
    CString& operator+=(const char* text);
    CString& operator+=(int number);
    bool operator!=(const char* text) const;

    const char* c_str() const { return String(); }
    const char* Data() const { return String(); }
    static int StringCount();
};

class CPointerList {
public:
    CPointerList();
    ~CPointerList();
    CPointerList(const CPointerList&) = delete;
    CPointerList& operator=(const CPointerList&) = delete;

    void Push(void* pointer);
    void Rewind();
    void* Next();
    void Delete(void* pointer);
    int Count() const { return count; }
    void Clear();

private:
    struct Item {
        void* pointer;
        Item* previous;
        Item* next;
    };
    Item* head = nullptr;
    Item* tail = nullptr;
    Item* cursor = nullptr;
    int count = 0;
};

// A printable name for every byte value ("<NUL>", "<SOH>", ..., "A", ...).
class CPrinTable {
public:
    const char* operator[](unsigned char byte) const;
};

} // namespace SDO
