// Writes one backup into its chain.
//
// A backup becomes part of the repository by the appearance of its manifest, and by nothing else: data and
// index are on the disk before the manifest gets its name. A process that ends anywhere before leaves a folder
// without a manifest, which readers do not see and the next backup removes.
#pragma once

#include "checksum.h"
#include "file.h"
#include "index_format.h"
#include "manifest.h"
#include "repository.h"

namespace vtbackup {

class BackupWriter {
public:
    // Makes the backup's folder, which must not be there yet.
    BackupWriter(const Chain& chain, std::uint64_t sequence, Geometry geometry);

    // Blocks come in strictly ascending order.
    void AddBlock(std::uint64_t block, const void* bytes, std::size_t length, const Checksum& checksum);
    void AddZeroBlock(std::uint64_t block);

    // Makes data and index durable and fills in the manifest's counts and checksum; it is final then.
    void Finish(Manifest& manifest);
    // Makes the finished manifest durable under its name: from here on the backup exists.
    void Commit();

private:
    void AddRecord(const IndexRecord& record);

    const Chain& m_chain;
    std::uint64_t m_sequence;
    FileWriter m_data;
    FileWriter m_index;
    RunningChecksum m_indexChecksum;
    std::string m_manifest; // its text
    std::uint64_t m_records = 0;
    std::uint64_t m_zero = 0;
};

} // namespace vtbackup
