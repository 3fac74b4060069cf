#include "log/outputs.h"

#include "log/file_output.h"
#include "log/live_output.h"
#include "log/log_config.h"
#include "log/log_levels.h"

#include <new>

namespace vtflt {

IDBGLogOutput* MakeFileOutput() noexcept
{
    return new (std::nothrow) NSDBG::CFileOutput;
}

IDBGLogOutput* MakeLiveOutput() noexcept
{
    return new (std::nothrow) NSDBG::CSMOutput;
}

void CloseOutputState() noexcept
{
    CLogCfgShareMemory::Instance().Close();
    ForgetLogLevels();
}

} // namespace vtflt
