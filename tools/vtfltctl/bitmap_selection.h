// Which bitmap a command works on: a file, or an application's files on a volume.
#pragma once

#include "bitmap_bits.h"
#include "bitmap_live.h"
#include "bitmap_name.h"
#include "bitmap_picture.h"
#include "commands.h"
#include "common/text.h"

#include <memory>
#include <string>
#include <vector>

namespace vtfltctl::bitmap {

// One file, looked at.
struct Opened {
    std::wstring path;
    NameFacts name;
    std::unique_ptr<ByteSource> bytes; // null: there is no such file
    FileFacts facts;
    Geometry geometry;

    [[nodiscard]] std::string Title() const;
    // The blocks that are shown of it: the volume's where its size is known.
    [[nodiscard]] std::uint64_t Blocks() const noexcept;
};

// Opens one file by its path. Throws Failure.
Opened OpenPath(const std::string& path, const SelectionOptions& options);

struct Selection {
    std::vector<Opened> files; // one, or base and child
    std::string title;
    std::string source;
    Geometry geometry;
    std::string volume;      // \\?\Volume{...}\, empty for a file
    std::string application; // empty where unknown

    // Whether a file of a volume is not there.
    [[nodiscard]] bool Missing() const noexcept;
    // The worst of the files that are there.
    [[nodiscard]] Verdict Worst() const noexcept;
    [[nodiscard]] std::uint64_t HeldBlocks() const noexcept;
};

// Opens what the options select. Throws Failure.
Selection Select(const SelectionOptions& options);

// The bits of a selection: of both files, where there are two. Keep the selection as long.
class SelectedBits {
public:
    // Throws Failure when there is nothing that could be shown.
    explicit SelectedBits(Selection& selection);
    [[nodiscard]] BitSource& Bits() noexcept;

private:
    std::vector<std::unique_ptr<BitSource>> m_sources;
};

// Runs a function that reads bitmaps, and turns a read error into a Failure that names what was read.
template <class Function>
auto Reading(const std::string& what, Function function)
{
    try {
        return function();
    } catch (const ReadError& error) {
        throw Failure(ReadErrorExit(error), ReadErrorText(toolkit::ToWide(what), error));
    }
}

// A size option. Throws Failure(Usage).
std::uint64_t SizeOption(const char* name, const std::string& text);

// Ok for a sound bitmap, VerifyRequired for one that is missing, Damaged for any other.
Exit ExitOf(const Selection& selection) noexcept;
// Says on standard error what is wrong with the files, if anything.
void WarnOfFlaws(const Selection& selection);

} // namespace vtfltctl::bitmap
