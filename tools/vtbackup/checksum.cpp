#include "checksum.h"

#include "text.h"

#include <xxhash.h>

#include <cstring>

namespace vtbackup {
namespace {

Checksum Canonical(XXH128_hash_t hash)
{
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, hash);
    Checksum out;
    static_assert(sizeof(canonical.digest) == sizeof(Checksum));
    std::memcpy(out.data(), canonical.digest, out.size());
    return out;
}

} // namespace

Checksum ChecksumOf(const void* bytes, std::size_t length)
{
    return Canonical(XXH3_128bits(bytes, length));
}

std::string ToHex(const Checksum& checksum)
{
    return HexOf(checksum.data(), checksum.size());
}

struct RunningChecksum::State {
    XXH3_state_t value;
};

RunningChecksum::RunningChecksum() : m_state(std::make_unique<State>())
{
    XXH3_128bits_reset(&m_state->value);
}

RunningChecksum::~RunningChecksum() = default;

void RunningChecksum::Add(const void* bytes, std::size_t length)
{
    XXH3_128bits_update(&m_state->value, bytes, length);
}

Checksum RunningChecksum::Value() const
{
    return Canonical(XXH3_128bits_digest(&m_state->value));
}

} // namespace vtbackup
