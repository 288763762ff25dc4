// As much of JSON Schema as docs/kestra-ctl.schema.json uses; a keyword that is not known here fails the test.
#include "tests/ctl/ctl_test.h"

#include <set>

namespace kestra::test {
namespace {

using nlohmann::json;

bool hasType(const json& value, const std::string& type) {
    if (type == "object") return value.is_object();
    if (type == "array") return value.is_array();
    if (type == "string") return value.is_string();
    if (type == "integer") return value.is_number_integer();
    if (type == "number") return value.is_number();
    if (type == "boolean") return value.is_boolean();
    return type == "null" && value.is_null();
}

class Validator {
public:
    explicit Validator(const json& root) : m_root(root) {}

    /// @return what is wrong; empty: nothing
    std::string check(const json& value, const json& schema, const std::string& at) const {
        static const std::set<std::string> kKnown = {
            "$ref",  "type",        "const",   "enum",    "properties",
            "items", "required",    "minimum", "maximum", "additionalProperties",
            "oneOf", "description", "$defs",   "$schema", "title"};
        for (const auto& [keyword, unused] : schema.items())
            if (!kKnown.contains(keyword)) return at + ": the validator knows no '" + keyword + "'";
        if (schema.contains("$ref")) {
            const std::string reference = schema["$ref"];
            return check(value, m_root.at(json::json_pointer(reference.substr(1))), at);
        }
        if (schema.contains("oneOf")) {
            std::string all;
            int fitting = 0;
            for (const json& one : schema["oneOf"]) {
                const std::string wrong = check(value, one, at);
                if (wrong.empty()) ++fitting;
                all += "\n    " + wrong;
            }
            if (fitting != 1) return at + ": " + std::to_string(fitting) + " alternatives fit" + all;
        }
        if (schema.contains("const") && value != schema["const"]) return at + ": is not " + schema["const"].dump();
        if (schema.contains("enum") &&
            std::find(schema["enum"].begin(), schema["enum"].end(), value) == schema["enum"].end())
            return at + ": " + value.dump() + " is none of " + schema["enum"].dump();
        if (schema.contains("type")) {
            const json types = schema["type"].is_array() ? schema["type"] : json::array({schema["type"]});
            bool fits = false;
            for (const json& type : types)
                fits = fits || hasType(value, type);
            if (!fits) return at + ": " + value.dump() + " is no " + types.dump();
        }
        if (schema.contains("minimum") && value.is_number() && value < schema["minimum"]) return at + ": too small";
        if (schema.contains("maximum") && value.is_number() && value > schema["maximum"]) return at + ": too large";
        if (value.is_array() && schema.contains("items"))
            for (size_t i = 0; i < value.size(); ++i)
                if (auto wrong = check(value[i], schema["items"], at + "/" + std::to_string(i)); !wrong.empty())
                    return wrong;
        return value.is_object() ? checkObject(value, schema, at) : "";
    }

private:
    std::string checkObject(const json& value, const json& schema, const std::string& at) const {
        for (const json& name : schema.value("required", json::array()))
            if (!value.contains(name)) return at + ": lacks " + name.dump();
        const json properties = schema.value("properties", json::object());
        for (const auto& [name, member] : value.items()) {
            if (properties.contains(name)) {
                if (auto wrong = check(member, properties[name], at + "/" + name); !wrong.empty()) return wrong;
            } else if (schema.contains("additionalProperties")) {
                if (schema["additionalProperties"] == false) return at + ": has " + name;
                if (auto wrong = check(member, schema["additionalProperties"], at + "/" + name); !wrong.empty())
                    return wrong;
            }
        }
        return "";
    }

    const json& m_root;
};

} // namespace

void expectSchema(const std::string& verb, const std::string& line) {
    const json schema = json::parse(readWholeFile(KESTRA_SCHEMA));
    const json value = json::parse(line, nullptr, false);
    ASSERT_FALSE(value.is_discarded()) << line;
    EXPECT_EQ(value.value("verb", ""), verb);
    EXPECT_EQ(Validator(schema).check(value, schema, ""), "") << line;
}

TEST(Schema, FindsWhatIsWrong) {
    const json schema = json::parse(R"({"type": "object", "required": ["a"], "additionalProperties": false,
        "properties": {"a": {"type": ["integer", "null"], "minimum": 0}, "b": {"type": "array", "items": {"enum": [1]}}}})");
    const Validator validator(schema);
    EXPECT_EQ(validator.check(json::parse(R"({"a": 1, "b": [1]})"), schema, ""), "");
    EXPECT_EQ(validator.check(json::parse(R"({"a": null})"), schema, ""), "");
    for (const char* wrong :
         {R"({})", R"({"a": "x"})", R"({"a": -1})", R"({"a": 1, "c": 2})", R"({"a": 1, "b": [2]})", "3"})
        EXPECT_NE(validator.check(json::parse(wrong), schema, ""), "") << wrong;
    EXPECT_NE(validator.check(1, json::parse(R"({"pattern": "x"})"), ""), "");
}

} // namespace kestra::test
