// A property-list value (the dictionaries of saved state and preset files) and its file forms.
// Writing produces an XML property list 1.0; reading takes XML or binary property lists.
// Reading is meant for untrusted bytes: size, nesting and expansion are bounded before the
// bytes reach the parser, so a hostile file is refused instead of exhausting stack or memory.
// Threading: plain values; nothing here may run on the render thread (it allocates).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace sr {

struct PropertyListParse;

class PropertyList {
public:
    enum class Kind { Boolean, Integer, Real, String, Data, Date, Array, Dictionary };

    struct Entry;
    using Array = std::vector<PropertyList>;
    // Keys in insertion (or file) order, so a dictionary written twice gives the same bytes.
    using Dictionary = std::vector<Entry>;
    using Data = std::vector<std::uint8_t>;
    // A property list has one integer kind of 64 bits; whether they are read as signed or
    // unsigned is the reader's business, as in the file formats themselves.
    struct Integer {
        std::uint64_t bits = 0;
        bool operator==(const Integer&) const = default;
    };
    struct Date {
        std::int32_t seconds = 0; // since 2001-01-01
        std::int32_t microseconds = 0;
        bool operator==(const Date&) const = default;
    };

    // Defined below, where Entry is complete: building the value needs it.
    PropertyList();
    PropertyList(bool b);
    PropertyList(Integer i);
    PropertyList(double r);
    PropertyList(std::string s);
    PropertyList(const char* s);
    PropertyList(Data d);
    PropertyList(Date d);
    PropertyList(Array a);
    PropertyList(Dictionary d);

    static PropertyList integer(std::int64_t v) { return Integer{std::uint64_t(v)}; }
    static PropertyList unsignedInteger(std::uint64_t v) { return Integer{v}; }

    Kind kind() const { return Kind(value.index()); }
    bool is(Kind k) const { return kind() == k; }

    // Typed access; null when the value is of another kind.
    const bool* boolean() const { return std::get_if<bool>(&value); }
    const Integer* integerValue() const { return std::get_if<Integer>(&value); }
    const double* real() const { return std::get_if<double>(&value); }
    const std::string* string() const { return std::get_if<std::string>(&value); }
    const Data* data() const { return std::get_if<Data>(&value); }
    const Date* date() const { return std::get_if<Date>(&value); }
    const Array* array() const { return std::get_if<Array>(&value); }
    const Dictionary* dictionary() const { return std::get_if<Dictionary>(&value); }
    Dictionary* dictionary() { return std::get_if<Dictionary>(&value); }

    // Dictionary helpers: the value under a key (null when absent or not a dictionary), and
    // setting a key (replacing its value, or appending it).
    const PropertyList* find(std::string_view key) const;
    void set(std::string key, PropertyList v);

    bool operator==(const PropertyList& other) const;

    // The XML property list 1.0 form; nullopt when the serialiser fails.
    std::optional<std::string> toXML() const;

    // Reading any supported form.
    static PropertyListParse parse(std::string_view bytes);

    // Bounds for untrusted input. A preset of this plug-in is a few kilobytes and four levels
    // deep; these leave ample room for opaque data and foreign keys.
    static constexpr std::size_t kMaxBytes = 1 << 20;
    static constexpr std::size_t kMaxDepth = 24;
    static constexpr std::size_t kMaxNodes = 200000;

private:
    std::variant<bool, Integer, double, std::string, Data, Date, Array, Dictionary> value;
};

struct PropertyList::Entry {
    std::string key;
    PropertyList value;
    bool operator==(const Entry&) const = default;
};

// On failure `value` is empty and `error` says why.
struct PropertyListParse {
    std::optional<PropertyList> value;
    std::string format; // "XML", "binary" or "unknown"
    std::string error;
};

inline PropertyList::PropertyList() : value(Dictionary{}) {}
inline PropertyList::PropertyList(bool b) : value(b) {}
inline PropertyList::PropertyList(Integer i) : value(i) {}
inline PropertyList::PropertyList(double r) : value(r) {}
inline PropertyList::PropertyList(std::string s) : value(std::move(s)) {}
inline PropertyList::PropertyList(const char* s) : value(std::string(s)) {}
inline PropertyList::PropertyList(Data d) : value(std::move(d)) {}
inline PropertyList::PropertyList(Date d) : value(d) {}
inline PropertyList::PropertyList(Array a) : value(std::move(a)) {}
inline PropertyList::PropertyList(Dictionary d) : value(std::move(d)) {}

inline bool PropertyList::operator==(const PropertyList& other) const {
    return value == other.value;
}

// A whole file, but never more than `limit` + 1 bytes: more than `limit` means the file is
// larger, so a huge or endless file is refused without being read. nullopt when unreadable,
// with the reason in `error`.
struct LimitedRead {
    std::optional<std::string> bytes;
    std::string error;
};
LimitedRead readFileLimited(const std::string& path, std::size_t limit);

} // namespace sr
