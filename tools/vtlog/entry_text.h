// An entry as it is printed; each ends with a line feed.
#pragma once

#include "record_parser.h"

#include <nlohmann/json.hpp>

#include <string>

namespace vtlog {

// For people: time, level by name, process, thread, message, and what the error code means; in colour on a terminal.
// What a terminal would act on is written out.
std::string ReadableText(const Entry& entry);

// As the file has it, in UTF-8.
std::string PlainText(const Entry& entry);

// One JSON object; docs/vtlog.md describes it.
nlohmann::ordered_json EntryObject(const Entry& entry, const std::wstring& path);
std::string JsonText(const nlohmann::ordered_json& object);

// 0x00000005 ERROR_ACCESS_DENIED: Access denied; what is not known is left out.
std::string CodeWithMeaning(std::uint32_t code);

} // namespace vtlog
