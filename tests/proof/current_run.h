// What is being run, for whoever looks at a program that crashed or came to no end.
#pragma once

#include <string>

namespace vtproof {

// From now on a crash, an abort and a run of more than a minute end the process with the text of the present run.
void TellWhatCrashes();

// The present run; a program has one at a time. Within it, another one takes its place.
class CurrentRun {
public:
    explicit CurrentRun(const std::string& text);
    CurrentRun(const CurrentRun&) = delete;
    CurrentRun& operator=(const CurrentRun&) = delete;
    ~CurrentRun();
};

} // namespace vtproof
