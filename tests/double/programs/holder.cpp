// holder MUTEX EVENT: takes the mutex, sets the event and stays. holder count: counts its calls since the start.
#include <windows.h>

#include <string>

namespace {

int g_calls = 0;

std::wstring Wide(const char* text)
{
    const std::string bytes = text; // plain ASCII here
    return std::wstring(bytes.begin(), bytes.end());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return ++g_calls;
    const HANDLE mutex = OpenMutexW(SYNCHRONIZE, FALSE, Wide(argv[1]).c_str());
    const HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, Wide(argv[2]).c_str());
    WaitForSingleObject(mutex, INFINITE);
    SetEvent(event);
    Sleep(INFINITE);
    return 0;
}
