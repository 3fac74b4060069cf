// Files of a repository, rewritten so that every checksum is right again.
#pragma once

#include <nlohmann/json.hpp>

#include <cstddef>
#include <functional>
#include <string>

namespace vtbackup_test {

// As the repository has them in its texts.
std::string ChecksumOf(const void* bytes, std::size_t length);
// Changes what a manifest says.
void ForgeManifest(const std::wstring& path, const std::function<void(nlohmann::json&)>& change);

} // namespace vtbackup_test
