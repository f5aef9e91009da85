// A JSON document to print. Its members stay in the order in which they were written. The JSON
// library, which costs seconds in every file that includes it, is behind Json.cpp.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace easctl {

class Json {
  public:
    struct Member;
    using Array = std::vector<Json>;
    using Object = std::vector<Member>;

    Json() noexcept;  // null
    Json(std::nullptr_t) noexcept;
    Json(double number) noexcept;
    Json(const char* text);
    Json(std::string_view text);
    Json(std::string text) noexcept;
    /// An object.
    Json(std::initializer_list<Member> members);
    Json(const Json& other);
    Json(Json&& other) noexcept;
    Json& operator=(const Json& other);
    Json& operator=(Json&& other) noexcept;
    ~Json();

    template <typename Number, std::enable_if_t<std::is_integral_v<Number>, int> = 0>
    Json(Number number) noexcept : Json(Value(as_whole(number))) {}
    /// What is missing is null.
    template <typename Value>
    Json(const std::optional<Value>& value) : Json(value ? Json(*value) : Json()) {}

    template <typename Value>
    Json(const std::vector<Value>& values) : Json(list_of(values)) {}
    template <typename Value, std::size_t Size>
    Json(const std::array<Value, Size>& values) : Json(list_of(values)) {}

    static Json object();
    static Json array();

    /// The member of that name of an object; a new one, null, is the last. Null becomes an object.
    Json& operator[](std::string_view name);
    /// Appends the members of another object.
    void add_members(Json other);
    /// Appends to an array. Null becomes one.
    void push_back(Json value);
    /// Of an array.
    [[nodiscard]] std::size_t size() const;
    [[nodiscard]] bool empty() const { return size() == 0; }

    /// The document on lines of its own, indented by two; a byte that is not UTF-8 is replaced.
    [[nodiscard]] std::string text() const;

  private:
    using Value = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double,
                               std::string, Array, Object>;

    /// As the widest type of its kind.
    template <typename Number>
    static auto as_whole(Number number) noexcept {
        if constexpr (std::is_same_v<Number, bool>)
            return number;
        else if constexpr (std::is_signed_v<Number>)
            return std::int64_t{number};
        else
            return std::uint64_t{number};
    }
    template <typename Container>
    static Json list_of(const Container& values) {
        Json list = array();
        for (const auto& value : values)
            list.push_back(value);
        return list;
    }
    explicit Json(Value value) noexcept;

    friend struct JsonWriter;
    Value value_;
};

// Out of line like Json's own: documents are written member by member in many places.
struct Json::Member {
    Member(std::string_view member_name, Json member_value);
    Member(const Member& other);
    Member(Member&& other) noexcept;
    Member& operator=(const Member& other);
    Member& operator=(Member&& other) noexcept;
    ~Member();

    std::string name;
    Json value;
};

/// Writes to standard output, like print().
void print_json(const Json& document);

}  // namespace easctl
