#include "KestrelvaneKit/usb/PropertyList.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <utility>

namespace kestrelvane {
namespace {

constexpr std::string_view binaryMagic = "bplist00";

plist_t childOfType(plist_t dictionary, const std::string& key, plist_type type) {
    if (dictionary == nullptr || plist_get_node_type(dictionary) != PLIST_DICT) {
        return nullptr;
    }
    plist_t child = plist_dict_get_item(dictionary, key.c_str());
    return child != nullptr && plist_get_node_type(child) == type ? child : nullptr;
}

} // namespace

PropertyList& PropertyList::operator=(PropertyList&& other) noexcept {
    std::swap(node_, other.node_); // `other` frees what was held here
    return *this;
}

PropertyList::~PropertyList() {
    if (node_ != nullptr) {
        plist_free(node_);
    }
}

PropertyList PropertyList::dictionary() {
    return PropertyList(plist_new_dict());
}

PropertyList PropertyList::array() {
    return PropertyList(plist_new_array());
}

PropertyList PropertyList::string(std::string_view value) {
    return PropertyList(plist_new_string(std::string(value).c_str()));
}

PropertyList PropertyList::integer(std::int64_t value) {
    return PropertyList(plist_new_uint(static_cast<std::uint64_t>(value)));
}

PropertyList::Format PropertyList::formatOf(ByteView bytes) noexcept {
    return asText(bytes).starts_with(binaryMagic) ? Format::binary : Format::xml;
}

PropertyList PropertyList::parse(ByteView bytes) {
    if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw ParseError("property list too large");
    }
    const auto length = static_cast<std::uint32_t>(bytes.size());
    plist_t node = nullptr;
    if (!bytes.empty()) {
        // The reader takes a char pointer but only reads through it.
        const char* data = reinterpret_cast<const char*>(bytes.data());
        if (formatOf(bytes) == Format::binary) {
            plist_from_bin(data, length, &node);
        } else {
            plist_from_xml(data, length, &node);
        }
    }
    if (node == nullptr) {
        throw ParseError(formatOf(bytes) == Format::binary ? "not a binary property list"
                                                           : "not an XML property list");
    }
    return PropertyList(node);
}

Bytes PropertyList::serialize(Format format) const {
    char* data = nullptr;
    std::uint32_t length = 0;
    if (format == Format::binary) {
        plist_to_bin(node_, &data, &length);
    } else {
        plist_to_xml(node_, &data, &length);
    }
    if (data == nullptr) {
        throw ParseError("property list cannot be serialised");
    }
    const auto* begin = reinterpret_cast<const std::uint8_t*>(data);
    Bytes bytes(begin, begin + length);
    if (format == Format::binary) {
        plist_to_bin_free(data);
    } else {
        plist_to_xml_free(data);
    }
    return bytes;
}

plist_t PropertyList::release() noexcept {
    return std::exchange(node_, nullptr);
}

bool PropertyList::isDictionary() const noexcept {
    return node_ != nullptr && plist_get_node_type(node_) == PLIST_DICT;
}

PropertyList& PropertyList::set(const std::string& key, PropertyList value) {
    plist_dict_set_item(node_, key.c_str(), value.release());
    return *this;
}

PropertyList& PropertyList::append(PropertyList value) {
    plist_array_append_item(node_, value.release());
    return *this;
}

std::optional<std::string> PropertyList::stringAt(plist_t dictionary, const std::string& key) {
    plist_t child = childOfType(dictionary, key, PLIST_STRING);
    if (child == nullptr) {
        return std::nullopt;
    }
    // Not plist_get_string_val: it asserts on a string holding a NUL, which a
    // peer can send in a binary list.
    std::uint64_t length = 0;
    const char* value = plist_get_string_ptr(child, &length);
    if (value == nullptr) {
        return std::nullopt;
    }
    return std::string(value, static_cast<std::size_t>(length));
}

std::optional<std::int64_t> PropertyList::integerAt(plist_t dictionary, const std::string& key) {
    plist_t child = childOfType(dictionary, key, PLIST_UINT);
    if (child == nullptr) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    plist_get_uint_val(child, &value);
    return static_cast<std::int64_t>(value);
}

plist_t PropertyList::dictionaryAt(plist_t dictionary, const std::string& key) {
    return childOfType(dictionary, key, PLIST_DICT);
}

plist_t PropertyList::arrayAt(plist_t dictionary, const std::string& key) {
    return childOfType(dictionary, key, PLIST_ARRAY);
}

} // namespace kestrelvane
