#include "platform/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

namespace sr {

// ---- dictionary helpers ------------------------------------------------------------------------

const PropertyList* PropertyList::find(std::string_view key) const {
    const Dictionary* dict = dictionary();
    if (!dict) return nullptr;
    for (const Entry& e : *dict)
        if (e.key == key) return &e.value;
    return nullptr;
}

void PropertyList::set(std::string key, PropertyList v) {
    Dictionary* dict = dictionary();
    if (!dict) return;
    for (Entry& e : *dict)
        if (e.key == key) {
            e.value = std::move(v);
            return;
        }
    dict->push_back(Entry{std::move(key), std::move(v)});
}

// ---- structure guards --------------------------------------------------------------------------
// The parser and the library's own teardown recurse once per nesting level, and a binary list
// may share one object from many places, which the parser expands into copies. Both are
// bounded here, on the raw bytes, before the parser sees them.

namespace {

bool startsWith(std::string_view s, std::size_t at, std::string_view prefix) {
    return s.size() - at >= prefix.size() && s.compare(at, prefix.size(), prefix) == 0;
}

// Element nesting of an XML document; comments, CDATA, declarations and processing
// instructions do not count, so nothing hidden in them can fool the count.
std::optional<std::string> checkXMLNesting(std::string_view xml) {
    std::size_t depth = 0, i = 0;
    const auto skipPast = [&](std::string_view end) {
        const std::size_t found = xml.find(end, i);
        i = found == std::string_view::npos ? xml.size() : found + end.size();
    };
    while ((i = xml.find('<', i)) != std::string_view::npos) {
        if (startsWith(xml, i, "<!--")) {
            skipPast("-->");
        } else if (startsWith(xml, i, "<![CDATA[")) {
            skipPast("]]>");
        } else if (startsWith(xml, i, "<?")) {
            skipPast("?>");
        } else if (startsWith(xml, i, "<!")) {
            skipPast(">");
        } else if (startsWith(xml, i, "</")) {
            if (depth > 0) --depth;
            skipPast(">");
        } else {
            const std::size_t close = xml.find('>', i);
            if (close == std::string_view::npos) break;
            if (xml[close - 1] != '/' && ++depth > PropertyList::kMaxDepth)
                return "nesting deeper than " + std::to_string(PropertyList::kMaxDepth) + " levels";
            i = close + 1;
        }
    }
    return std::nullopt;
}

std::uint64_t readBigEndian(const unsigned char* p, std::size_t n) {
    std::uint64_t v = 0;
    for (std::size_t k = 0; k < n; ++k) v = (v << 8) | p[k];
    return v;
}

// The object graph of a binary property list: every offset and reference inside the file, no
// cycles, nesting and expanded size within bounds.
std::optional<std::string> checkBinaryGraph(std::string_view bytes) {
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const std::size_t size = bytes.size();
    constexpr std::size_t kHeader = 8, kTrailer = 32;
    if (size < kHeader + kTrailer + 1) return "truncated binary property list";
    const unsigned char* trailer = data + size - kTrailer;
    const std::size_t offsetSize = trailer[6], refSize = trailer[7];
    const std::uint64_t objects = readBigEndian(trailer + 8, 8);
    const std::uint64_t top = readBigEndian(trailer + 16, 8);
    const std::uint64_t table = readBigEndian(trailer + 24, 8);
    const std::size_t end = size - kTrailer;
    if (offsetSize < 1 || offsetSize > 8 || refSize < 1 || refSize > 8 || objects == 0 ||
        top >= objects || table < kHeader || table > end || objects > (end - table) / offsetSize)
        return "malformed binary property list trailer";

    const auto offsetOf = [&](std::uint64_t object) {
        return readBigEndian(data + table + object * offsetSize, offsetSize);
    };
    // The references of a container object (none for leaves), or why the object is refused.
    const auto references = [&](std::uint64_t object, std::size_t& first,
                                std::size_t& count) -> std::optional<std::string> {
        first = count = 0;
        constexpr const char* outside = "object outside the file";
        const std::uint64_t at = offsetOf(object);
        if (at < kHeader || at >= table) return outside;
        const unsigned marker = data[at], type = marker >> 4;
        const bool text = type == 0x5 || type == 0x6; // ASCII or UTF-16, keys too
        if (type != 0xA && type != 0xC && type != 0xD && !text) return std::nullopt;
        std::uint64_t n = marker & 0x0F, start = at + 1;
        if (n == 0x0F) { // the count follows as an integer object
            if (start >= table || (data[start] >> 4) != 0x1) return outside;
            const std::size_t width = std::size_t(1) << (data[start] & 0x0F);
            if (width > 8 || start + 1 + width > table) return outside;
            n = readBigEndian(data + start + 1, width);
            start += 1 + width;
        }
        if (text) {
            // The library aborts the process (an assertion) when it hands out a string or a
            // key with a NUL inside.
            const std::uint64_t width = type == 0x6 ? 2 : 1;
            if (n > (table - start) / width) return outside;
            for (std::uint64_t k = 0; k < n; ++k)
                if (readBigEndian(data + start + k * width, width) == 0)
                    return "a string holds a NUL character";
            return std::nullopt;
        }
        if (type == 0xD) {
            if (n > (table - start) / 2) return outside;
            n *= 2;
        }
        if (n > (table - start) / refSize) return outside;
        first = std::size_t(start);
        count = std::size_t(n);
        return std::nullopt;
    };

    // Post-order walk without recursion: depth and expanded node count per object, computed
    // once each; an object met again while still open is a cycle.
    enum : unsigned char { kUnseen, kOpen, kDone };
    std::vector<unsigned char> state(objects, kUnseen);
    std::vector<std::uint32_t> depth(objects, 0);
    std::vector<std::uint64_t> nodes(objects, 0);
    struct Frame {
        std::uint64_t object;
        std::size_t first, count, next;
    };
    std::vector<Frame> stack;
    const auto open = [&](std::uint64_t object) -> std::optional<std::string> {
        if (object >= objects) return "reference outside the object table";
        if (state[object] == kOpen) return "cyclic binary property list";
        if (state[object] == kDone) return std::nullopt;
        if (stack.size() >= PropertyList::kMaxDepth)
            return "nesting deeper than " + std::to_string(PropertyList::kMaxDepth) + " levels";
        Frame f{object, 0, 0, 0};
        if (auto error = references(object, f.first, f.count)) return error;
        state[object] = kOpen;
        stack.push_back(f);
        return std::nullopt;
    };
    const auto child = [&](const Frame& f, std::size_t k) {
        return readBigEndian(data + f.first + k * refSize, refSize);
    };
    if (auto error = open(top)) return error;
    while (!stack.empty()) {
        Frame& f = stack.back();
        if (f.next < f.count) {
            if (auto error = open(child(f, f.next++))) return error;
            continue;
        }
        std::uint32_t d = 1;
        std::uint64_t n = 1;
        for (std::size_t k = 0; k < f.count; ++k) {
            d = std::max(d, depth[child(f, k)] + 1);
            n += nodes[child(f, k)];
        }
        if (n > PropertyList::kMaxNodes) return "binary property list expands too far";
        depth[f.object] = d;
        nodes[f.object] = n;
        state[f.object] = kDone;
        stack.pop_back();
    }
    return std::nullopt;
}

// ---- conversion to and from the library's nodes ------------------------------------------------

struct NodeDeleter {
    void operator()(void* node) const { plist_free(static_cast<plist_t>(node)); }
};
using Node = std::unique_ptr<void, NodeDeleter>;

Node toNode(const PropertyList& v) {
    using K = PropertyList::Kind;
    switch (v.kind()) {
    case K::Boolean:
        return Node(plist_new_bool(*v.boolean() ? 1 : 0));
    case K::Integer:
        return Node(plist_new_uint(v.integerValue()->bits));
    case K::Real:
        return Node(plist_new_real(*v.real()));
    case K::String:
        return Node(plist_new_string(v.string()->c_str()));
    case K::Data: {
        const PropertyList::Data& d = *v.data();
        return Node(plist_new_data(reinterpret_cast<const char*>(d.data()), d.size()));
    }
    case K::Date:
        return Node(plist_new_date(v.date()->seconds, v.date()->microseconds));
    case K::Array: {
        Node node(plist_new_array());
        for (const PropertyList& item : *v.array()) {
            Node child = toNode(item);
            if (!child) return nullptr;
            plist_array_append_item(node.get(), child.release());
        }
        return node;
    }
    case K::Dictionary: {
        Node node(plist_new_dict());
        for (const PropertyList::Entry& e : *v.dictionary()) {
            Node child = toNode(e.value);
            if (!child) return nullptr;
            plist_dict_set_item(node.get(), e.key.c_str(), child.release());
        }
        return node;
    }
    }
    return nullptr;
}

std::optional<PropertyList> fromNode(plist_t node, std::size_t depth, std::string& error) {
    if (depth > PropertyList::kMaxDepth) {
        error = "nesting too deep";
        return std::nullopt;
    }
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        std::uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return PropertyList(b != 0);
    }
    case PLIST_UINT: {
        std::uint64_t bits = 0;
        plist_get_uint_val(node, &bits);
        return PropertyList::unsignedInteger(bits);
    }
    case PLIST_REAL: {
        double r = 0;
        plist_get_real_val(node, &r);
        return PropertyList(r);
    }
    case PLIST_STRING:
    case PLIST_KEY: {
        char* s = nullptr;
        plist_get_string_val(node, &s);
        std::string text = s ? s : "";
        std::free(s);
        return PropertyList(std::move(text));
    }
    case PLIST_DATA: {
        char* bytes = nullptr;
        std::uint64_t length = 0;
        plist_get_data_val(node, &bytes, &length);
        PropertyList::Data d(reinterpret_cast<std::uint8_t*>(bytes),
                             reinterpret_cast<std::uint8_t*>(bytes) + (bytes ? length : 0));
        std::free(bytes);
        return PropertyList(std::move(d));
    }
    case PLIST_DATE: {
        std::int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        return PropertyList(PropertyList::Date{sec, usec});
    }
    case PLIST_ARRAY: {
        PropertyList::Array items;
        const std::uint32_t n = plist_array_get_size(node);
        items.reserve(n);
        for (std::uint32_t k = 0; k < n; ++k) {
            auto item = fromNode(plist_array_get_item(node, k), depth + 1, error);
            if (!item) return std::nullopt;
            items.push_back(std::move(*item));
        }
        return PropertyList(std::move(items));
    }
    case PLIST_DICT: {
        PropertyList::Dictionary entries;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        std::optional<PropertyList> result;
        for (;;) {
            char* key = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, it, &key, &item);
            if (!item) {
                std::free(key);
                result = PropertyList(std::move(entries));
                break;
            }
            std::string name = key ? key : "";
            std::free(key);
            auto value = fromNode(item, depth + 1, error);
            if (!value) break;
            entries.push_back(PropertyList::Entry{std::move(name), std::move(*value)});
        }
        std::free(it);
        return result;
    }
    default:
        error = "unsupported value kind";
        return std::nullopt;
    }
}

} // namespace

std::optional<std::string> PropertyList::toXML() const {
    Node node = toNode(*this);
    if (!node) return std::nullopt;
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node.get(), &xml, &length);
    if (!xml) return std::nullopt;
    std::string text(xml, length);
    plist_to_xml_free(xml);
    return text;
}

PropertyListParse PropertyList::parse(std::string_view bytes) {
    PropertyListParse result;
    const bool binary = bytes.size() >= 8 && bytes.substr(0, 6) == "bplist";
    std::size_t start = bytes.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0; // byte-order mark
    while (start < bytes.size() &&
           std::string_view(" \t\r\n").find(bytes[start]) != std::string_view::npos)
        ++start;
    const bool xml = !binary && bytes.substr(start, 1) == "<";
    result.format = binary ? "binary" : xml ? "XML" : "unknown";

    if (bytes.size() > kMaxBytes) {
        result.error = "larger than " + std::to_string(kMaxBytes) + " bytes";
        return result;
    }
    if (!binary && !xml) {
        result.error = bytes.empty() ? "empty" : "not a property list";
        return result;
    }
    // XML has no NUL character, and the library aborts when it hands out a string holding one.
    if (xml && bytes.find('\0') != std::string_view::npos) {
        result.error = "a NUL character in XML";
        return result;
    }
    if (auto problem = binary ? checkBinaryGraph(bytes) : checkXMLNesting(bytes)) {
        result.error = *problem;
        return result;
    }
    plist_t root = nullptr;
    plist_from_memory(bytes.data(), std::uint32_t(bytes.size()), &root);
    Node owner(root);
    if (!root) {
        result.error = "not a valid property list";
        return result;
    }
    result.value = fromNode(root, 0, result.error);
    return result;
}

LimitedRead readFileLimited(const std::string& path, std::size_t limit) {
    LimitedRead result;
    std::error_code ec;
    if (!std::filesystem::is_regular_file(path, ec)) {
        result.error = ec ? ec.message() : "not a regular file";
        return result;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        result.error = std::strerror(errno);
        return result;
    }
    std::string bytes(limit + 1, '\0');
    in.read(bytes.data(), std::streamsize(bytes.size()));
    if (in.bad()) {
        result.error = "read error";
        return result;
    }
    bytes.resize(std::size_t(in.gcount()));
    result.bytes = std::move(bytes);
    return result;
}

} // namespace sr
