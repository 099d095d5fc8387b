/// A tree of plain values, for the fields of an event and the entries of the information
/// dictionary. There is no null: an absent entry is left out of its map.
///
/// Values convert from C++ values: `Value::Map{{"ro", true}, {"ms", elapsed}}`. A type that is
/// none of the kinds below but can be written to a stream becomes the text that it writes. Text is
/// bytes as given, without a check of its encoding; the code that writes it out repairs it.
#pragma once

#include "platform/clock.hpp"

#include <concepts>
#include <cstdint>
#include <map>
#include <ranges>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace tavelin {

/// Owns all of its content. A plain value type: copies are deep, and one object is used by one
/// thread at a time unless all of them only read.
class Value {
  public:
    using List = std::vector<Value>;
    /// Sorted by key, so that its text form is the same on every run. Looks keys up without
    /// making a std::string.
    using Map = std::map<std::string, Value, std::less<>>;
    /// All kinds that a value can be of.
    using Storage =
        std::variant<std::string, bool, std::int64_t, std::uint64_t, double, Date, List, Map>;

    /// Converts implicitly, so that fields read as a list of names and values. Throws
    /// std::bad_alloc, and what the stream operator of T throws.
    template<typename T>
    // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): the constraint keeps copies out
    requires(!std::same_as<std::remove_cvref_t<T>, Value>) Value(T&& value)
        : storage_(convert(std::forward<T>(value))) {}

    /// The value as one of the kinds of Storage, or null when it is of another kind. Numbers are
    /// not converted: as<double>() of an integer is null. The pointer lives as long as the value.
    template<typename Kind>
    [[nodiscard]] const Kind* as() const {
        return std::get_if<Kind>(&storage_);
    }

    /// For std::visit over every kind.
    [[nodiscard]] const Storage& storage() const { return storage_; }

    /// Equal in kind and content: an integer equals no floating-point number.
    friend bool operator==(const Value&, const Value&) = default;

  private:
    // The order of the branches matters. bool is an integral type, so it is taken before the
    // integers. Text is a range of characters, so it is taken before the ranges. A character is
    // neither an integer nor text and goes to the stream, which writes it as a letter.
    template<typename T>
    static Storage convert(T&& value) {
        using Plain = std::remove_cvref_t<T>;
        if constexpr (std::same_as<Plain, List> || std::same_as<Plain, Map> ||
                      std::same_as<Plain, Date> || std::same_as<Plain, bool>) {
            return Storage(std::forward<T>(value));
        } else if constexpr (std::is_convertible_v<T, std::string>) {
            return Storage(std::in_place_type<std::string>, std::forward<T>(value));
        } else if constexpr (std::same_as<Plain, std::string_view>) {
            return Storage(std::in_place_type<std::string>, value);
        } else if constexpr (std::signed_integral<Plain> && !std::same_as<Plain, char>) {
            return Storage(std::in_place_type<std::int64_t>, value);
        } else if constexpr (std::unsigned_integral<Plain> && !std::same_as<Plain, char>) {
            return Storage(std::in_place_type<std::uint64_t>, value);
        } else if constexpr (std::floating_point<Plain>) {
            return Storage(std::in_place_type<double>, static_cast<double>(value));
        } else if constexpr (requires { typename Plain::mapped_type; }) {
            Map map;
            for (auto& [key, entry] : value) {
                map.insert_or_assign(key, Value(entry));
            }
            return Storage(std::move(map));
        } else if constexpr (std::ranges::input_range<Plain>) {
            List list;
            for (auto&& entry : value) {
                list.emplace_back(entry);
            }
            return Storage(std::move(list));
        } else {
            std::ostringstream described;
            described << value;
            return Storage(std::in_place_type<std::string>, std::move(described).str());
        }
    }

    Storage storage_;
};

} // namespace tavelin
