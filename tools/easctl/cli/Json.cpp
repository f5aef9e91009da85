#include "tools/easctl/cli/Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/easctl/cli/Output.h"

namespace easctl {

Json::Json() noexcept : value_(nullptr) {}
Json::Json(std::nullptr_t) noexcept : value_(nullptr) {}
Json::Json(double number) noexcept : value_(number) {}
Json::Json(const char* text) : value_(std::string(text)) {}
Json::Json(std::string_view text) : value_(std::string(text)) {}
Json::Json(std::string text) noexcept : value_(std::move(text)) {}
Json::Json(std::initializer_list<Member> members) : value_(Object(members)) {}
Json::Json(Value value) noexcept : value_(std::move(value)) {}
Json::Json(const Json& other) = default;
Json::Json(Json&& other) noexcept = default;
Json& Json::operator=(const Json& other) = default;
Json& Json::operator=(Json&& other) noexcept = default;
Json::~Json() = default;

Json::Member::Member(std::string_view member_name, Json member_value)
    : name(member_name), value(std::move(member_value)) {}
Json::Member::Member(const Member& other) = default;
Json::Member::Member(Member&& other) noexcept = default;
Json::Member& Json::Member::operator=(const Member& other) = default;
Json::Member& Json::Member::operator=(Member&& other) noexcept = default;
Json::Member::~Member() = default;

Json Json::object() {
    return Json(Value(Object()));
}

Json Json::array() {
    return Json(Value(Array()));
}

Json& Json::operator[](std::string_view name) {
    if (std::holds_alternative<std::nullptr_t>(value_))
        value_ = Object();
    auto& members = std::get<Object>(value_);
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const Member& one) { return one.name == name; });
    if (found != members.end())
        return found->value;
    return members.emplace_back(name, Json()).value;
}

void Json::add_members(Json other) {
    for (Member& member : std::get<Object>(other.value_))
        (*this)[member.name] = std::move(member.value);
}

void Json::push_back(Json value) {
    if (std::holds_alternative<std::nullptr_t>(value_))
        value_ = Array();
    std::get<Array>(value_).push_back(std::move(value));
}

std::size_t Json::size() const {
    return std::get<Array>(value_).size();
}

/// Hands a document to the library that writes it.
struct JsonWriter {
    using Written = nlohmann::ordered_json;

    static Written written(const Json& json) { return std::visit(JsonWriter(), json.value_); }

    template <typename Leaf>
    Written operator()(const Leaf& leaf) const {
        return leaf;
    }
    Written operator()(const Json::Array& values) const {
        Written list = Written::array();
        for (const Json& value : values)
            list.push_back(written(value));
        return list;
    }
    Written operator()(const Json::Object& members) const {
        Written object = Written::object();
        for (const Json::Member& member : members)
            object[member.name] = written(member.value);
        return object;
    }
};

std::string Json::text() const {
    using Written = JsonWriter::Written;
    return JsonWriter::written(*this).dump(2, ' ', false, Written::error_handler_t::replace);
}

void print_json(const Json& document) {
    print(document.text() + '\n');
}

}  // namespace easctl
