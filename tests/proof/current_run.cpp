#include "proof/current_run.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace vtproof {

namespace {

constexpr unsigned LONGEST_RUN = 60; // seconds; a run takes milliseconds
// Written before the run, only read when it crashes: there nothing can be allocated.
char g_text[1 << 18];
volatile std::sig_atomic_t g_tells = 0;

void Write(const char* text)
{
    for (std::size_t left = std::strlen(text); left != 0;) {
        const ssize_t written = write(STDERR_FILENO, text, left);
        if (written <= 0)
            return;
        text += written;
        left -= static_cast<std::size_t>(written);
    }
}

void TellRun(const char* what)
{
    Write(what);
    Write(g_text);
    Write("\n");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers have said what they found, and end the process.
void TellWhatWasRunning()
{
    TellRun("\nbroken: a crash\n");
}
#endif

void Tell(int signal)
{
    TellRun(signal == SIGALRM ? "\nbroken: a run that comes to no end\n" : "\nbroken: a crash\n");
    // As it would have ended without this.
    std::signal(signal == SIGALRM ? SIGABRT : signal, SIG_DFL);
    raise(signal == SIGALRM ? SIGABRT : signal);
}

} // namespace

void TellWhatCrashes()
{
    g_tells = 1;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    __sanitizer_set_death_callback(TellWhatWasRunning);
    for (const int signal : {SIGABRT, SIGALRM})
        std::signal(signal, Tell);
#else
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM})
        std::signal(signal, Tell);
#endif
}

CurrentRun::CurrentRun(const std::string& text)
{
    const std::size_t length = std::min(text.size(), sizeof(g_text) - 1);
    std::memcpy(g_text, text.data(), length);
    g_text[length] = '\0';
    if (g_tells != 0)
        alarm(LONGEST_RUN);
}

CurrentRun::~CurrentRun()
{
    alarm(0);
    g_text[0] = '\0';
}

} // namespace vtproof
