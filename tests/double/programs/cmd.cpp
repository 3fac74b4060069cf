// The command interpreter, as far as a test needs it: cmd.exe /c exit <code>.
#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    if (argc == 4 && std::string(argv[1]) == "/c" && std::string(argv[2]) == "exit")
        return std::atoi(argv[3]);
    return 1;
}
