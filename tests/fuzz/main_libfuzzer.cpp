// One target as libFuzzer's; which one is said when it is compiled.
#include "fuzz/fuzz.h"

#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t count)
{
    static const fuzz::Target* const target = [] {
        for (const fuzz::Target& candidate : fuzz::Targets()) {
            if (std::string_view(candidate.name) == VT_FUZZ_TARGET)
                return &candidate;
        }
        fuzz::Broken("the target is in the list", __FILE__, __LINE__);
    }();
    target->run(bytes, count);
    return 0;
}
