#pragma once

#include "KestrelvaneKit/wire/Bytes.h"

#include <plist/plist.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kestrelvane {

/// An owned libplist node (usually a dictionary), with the few reads and
/// writes the usbmuxd conversation needs.
class PropertyList {
public:
    enum class Format { xml, binary };

    /// Bytes that are neither an XML nor a binary property list.
    class ParseError : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    PropertyList() = default;
    /// Takes ownership of `node`.
    explicit PropertyList(plist_t node) noexcept : node_(node) {}
    PropertyList(PropertyList&& other) noexcept : node_(other.release()) {}
    PropertyList& operator=(PropertyList&& other) noexcept;
    PropertyList(const PropertyList&) = delete;
    PropertyList& operator=(const PropertyList&) = delete;
    ~PropertyList();

    static PropertyList dictionary();
    static PropertyList array();
    static PropertyList string(std::string_view value);
    /// Integers are stored as libplist keeps them: 64 bits, two's complement.
    static PropertyList integer(std::int64_t value);

    /// Reads XML or binary; throws ParseError otherwise.
    static PropertyList parse(ByteView bytes);
    /// Binary when `bytes` start with the binary magic, else XML.
    static Format formatOf(ByteView bytes) noexcept;

    Bytes serialize(Format format) const;

    plist_t get() const noexcept { return node_; }
    plist_t release() noexcept;
    bool isDictionary() const noexcept;

    /// Dictionary entries; `value` is moved into the dictionary.
    PropertyList& set(const std::string& key, PropertyList value);
    /// Appends to an array.
    PropertyList& append(PropertyList value);

    // Reads of a node owned elsewhere; each is empty when the key is missing
    // or holds another type.
    static std::optional<std::string> stringAt(plist_t dictionary, const std::string& key);
    static std::optional<std::int64_t> integerAt(plist_t dictionary, const std::string& key);
    static plist_t dictionaryAt(plist_t dictionary, const std::string& key);
    static plist_t arrayAt(plist_t dictionary, const std::string& key);

private:
    plist_t node_ = nullptr;
};

} // namespace kestrelvane
