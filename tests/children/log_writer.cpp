// A program that logs through the library, at the word of its standard input:
//
//     errors FROM COUNT    one error record for each number, with the number in it
//     say TEXT             records of the information level with the text in them
//     thread TEXT          the same from a thread of its own; "said TEXT" when it is done
//     quit                 ends it, as the end of the input does
//
// The first two are answered with "done" and the command, on standard output.
#include "vtfltmgr/VTFltMgr.h"

#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex g_output;

void Answer(const std::string& line)
{
    const std::lock_guard guard(g_output);
    std::cout << line << std::endl;
}

void Say(const std::string& text)
{
    VTUnregisterApplication(std::wstring(text.begin(), text.end()).c_str()); // plain ASCII here
}

void Errors(std::istringstream& arguments)
{
    std::uintptr_t from = 0;
    std::uintptr_t count = 0;
    arguments >> from >> count;
    for (std::uintptr_t i = 0; i < count; ++i)
        VTFltReplicationSuccess(reinterpret_cast<HANDLE>(from + i)); // handles of nothing
}

} // namespace

int main()
{
    std::vector<std::thread> threads;
    Answer("ready");
    for (std::string line; std::getline(std::cin, line) && line != "quit";) {
        std::istringstream arguments(line);
        std::string command;
        std::string text;
        arguments >> command;
        if (command == "errors") {
            Errors(arguments);
        } else {
            std::getline(arguments >> std::ws, text);
            if (command == "thread") {
                threads.emplace_back([text] {
                    Say(text);
                    Answer("said " + text);
                });
                continue;
            }
            Say(text);
        }
        Answer("done " + line);
    }
    for (std::thread& thread : threads)
        thread.join();
    return 0;
}
