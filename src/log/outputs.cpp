#include "log/outputs.h"

namespace vtflt {

// The log's own outputs do not exist yet: until they do, the library is silent and every message stops at the
// front end.
IDBGLogOutput* MakeFileOutput() noexcept
{
    return nullptr;
}

IDBGLogOutput* MakeLiveOutput() noexcept
{
    return nullptr;
}

} // namespace vtflt
