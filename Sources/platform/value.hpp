/// A tree of plain values: what the fields of an event and the entries of the information
/// dictionary hold. There is no null; what is absent is left out.
///
/// Values are made from what they are made of: `Value::Map{{"ro", true}, {"ms", elapsed}}`.
/// Anything that is none of the kinds below but can be written to a stream becomes the text that
/// the stream gets. Text is bytes as given; whoever prints it sees to its encoding.
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

class Value {
  public:
    using List = std::vector<Value>;
    using Map = std::map<std::string, Value, std::less<>>;
    using Storage =
        std::variant<std::string, bool, std::int64_t, std::uint64_t, double, Date, List, Map>;

    template<typename T>
    // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): the constraint keeps copies out
    requires(!std::same_as<std::remove_cvref_t<T>, Value>) Value(T&& value)
        : storage_(convert(std::forward<T>(value))) {}

    /// The value as one of the kinds of Storage, or null when it is of another kind.
    template<typename Kind>
    [[nodiscard]] const Kind* as() const {
        return std::get_if<Kind>(&storage_);
    }

    [[nodiscard]] const Storage& storage() const { return storage_; }

    friend bool operator==(const Value&, const Value&) = default;

  private:
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
