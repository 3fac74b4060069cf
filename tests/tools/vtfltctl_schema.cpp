#include "tools/vtfltctl_schema.h"

#include "win/windows.h"

#include <algorithm>
#include <fstream>

namespace vtfltctl_test {
namespace {

using nlohmann::json;

class Validator {
public:
    explicit Validator(const json& root) : m_root(root) {}

    void Check(const json& value, const json& schema, const std::string& place)
    {
        for (const auto& [keyword, argument] : schema.items())
            Apply(keyword, argument, value, schema, place);
    }
    std::string found;

private:
    void Complain(const std::string& place, const std::string& what) { found += place + ": " + what + "\n"; }

    static bool HasType(const json& value, const std::string& type)
    {
        if (type == "object")
            return value.is_object();
        if (type == "array")
            return value.is_array();
        if (type == "string")
            return value.is_string();
        if (type == "boolean")
            return value.is_boolean();
        if (type == "integer")
            return value.is_number_integer();
        if (type == "number")
            return value.is_number();
        return type == "null" && value.is_null();
    }

    void CheckType(const json& types, const json& value, const std::string& place)
    {
        const json list = types.is_array() ? types : json::array({types});
        for (const json& type : list) {
            if (HasType(value, type.get<std::string>()))
                return;
        }
        Complain(place, "is no " + types.dump() + " but " + value.dump());
    }

    void CheckProperties(const json& properties, const json& value, const json& schema, const std::string& place)
    {
        if (!value.is_object())
            return;
        for (const auto& [name, member] : value.items()) {
            if (properties.contains(name))
                Check(member, properties[name], place + "/" + name);
            else if (schema.value("additionalProperties", true) == false)
                Complain(place, "has a member that the schema does not know: " + name);
        }
    }

    void CheckOneOf(const json& choices, const json& value, const std::string& place)
    {
        int fitting = 0;
        std::string why;
        for (const json& choice : choices) {
            Validator one(m_root);
            one.Check(value, choice, place);
            fitting += one.found.empty() ? 1 : 0;
            why += one.found;
        }
        if (fitting != 1)
            Complain(place, "fits " + std::to_string(fitting) + " of the choices: " + why);
    }

    void Apply(const std::string& keyword, const json& argument, const json& value, const json& schema,
               const std::string& place)
    {
        if (keyword == "type")
            CheckType(argument, value, place);
        else if (keyword == "const") {
            if (value != argument)
                Complain(place, "is not " + argument.dump());
        } else if (keyword == "enum") {
            if (std::find(argument.begin(), argument.end(), value) == argument.end())
                Complain(place, value.dump() + " is none of " + argument.dump());
        } else if (keyword == "properties")
            CheckProperties(argument, value, schema, place);
        else if (keyword == "required") {
            for (const json& name : argument) {
                if (value.is_object() && !value.contains(name.get<std::string>()))
                    Complain(place, "lacks " + name.get<std::string>());
            }
        } else if (keyword == "items") {
            for (std::size_t i = 0; value.is_array() && i < value.size(); ++i)
                Check(value[i], argument, place + "/" + std::to_string(i));
        } else if (keyword == "minimum") {
            if (value.is_number() && value.get<double>() < argument.get<double>())
                Complain(place, value.dump() + " is below " + argument.dump());
        } else if (keyword == "oneOf")
            CheckOneOf(argument, value, place);
        else if (keyword == "$ref")
            Check(value, m_root.at(json::json_pointer(argument.get<std::string>().substr(1))), place);
        else if (keyword != "$schema" && keyword != "$defs" && keyword != "title" && keyword != "description" &&
                 keyword != "additionalProperties")
            Complain(place, "the validator does not know the keyword " + keyword);
    }

    const json& m_root;
};

} // namespace

std::string Violations(const json& value, const json& schema)
{
    Validator validator(schema);
    validator.Check(value, schema, "");
    return validator.found;
}

json LoadSchema(const std::string& name)
{
    char program[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, program, MAX_PATH);
    std::string folder(program);
    folder.resize(folder.find_last_of('\\') + 1);
    std::ifstream file(folder + "vtfltctl_schema\\" + name + ".json", std::ios::binary);
    return file ? json::parse(file, nullptr, false) : json();
}

} // namespace vtfltctl_test
