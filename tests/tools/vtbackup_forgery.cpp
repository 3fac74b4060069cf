#include "tools/vtbackup_forgery.h"

#include "tools/vtbackup_test.h"

#include <xxhash.h>

namespace vtbackup_test {

std::string ChecksumOf(const void* bytes, std::size_t length)
{
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(bytes, length));
    std::string text;
    for (const unsigned char byte : canonical.digest) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

void ForgeManifest(const std::wstring& path, const std::function<void(nlohmann::json&)>& change)
{
    const std::vector<std::uint8_t> bytes = ReadFileBytes(path);
    nlohmann::json file = nlohmann::json::parse(bytes.begin(), bytes.end());
    change(file["manifest"]);
    const std::string compact = file["manifest"].dump();
    file["checksum"] = ChecksumOf(compact.data(), compact.size());
    const std::string text = file.dump();
    WriteFileBytes(path, {text.begin(), text.end()});
}

} // namespace vtbackup_test
