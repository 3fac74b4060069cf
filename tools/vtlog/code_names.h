// What the error code of a record means: the library's own result codes and the system's error codes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vtlog {

// The symbolic name, BM_ERR_VERIFY_REQUIRED or ERROR_ACCESS_DENIED; empty for one that is not in the table.
std::string CodeName(std::uint32_t code);
// The meaning in words: of the library's codes our own, else the system's message, in its language; may be empty.
std::string CodeText(std::uint32_t code);
// The code of a symbolic name, in any case.
std::optional<std::uint32_t> CodeOfName(std::string_view name);

} // namespace vtlog
