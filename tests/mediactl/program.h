#ifndef MEDIAD_TESTS_MEDIACTL_PROGRAM_H
#define MEDIAD_TESTS_MEDIACTL_PROGRAM_H

// A program running as a process of its own, seen through its pipes.

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

class Program {
public:
    // Console: standard input and standard error are the terminal as well, and all that appears there is output().
    enum class Output { Pipe, Terminal, Console };

    explicit Program(std::vector<std::string> arguments, Output output = Output::Pipe);

    // Kills it when it still runs.
    ~Program();
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    // Reads until `text` has come since the last successful wait; false when it does not within the deadline.
    bool waitForOutput(const std::string& text);
    bool waitForErrors(const std::string& text);

    // Takes in what has been written so far, without waiting.
    void readWhatIsThere();

    // The program's end: its exit status, or 128 + signal; -1 when it does not end within the deadline.
    int wait();

    void kill(int signal);
    void stop(); // all of its threads, when this returns; SIGCONT lets it go on
    void type(const std::string& text);
    void closeInput();

    // Of the terminal; before the program looks.
    void setTerminalSize(unsigned short rows, unsigned short columns);

    // Everything so far.
    const std::string& output() const { return _output; }
    const std::string& errors() const { return _errors; }

private:
    bool readSome(int milliseconds); // false at the end of both
    bool waitFor(std::string& stream, std::size_t& seen, const std::string& text);

    pid_t _pid = -1;
    int _input = -1;
    int _out = -1;
    int _err = -1;
    bool _console = false;
    std::string _output;
    std::string _errors;
    std::size_t _outputSeen = 0;
    std::size_t _errorsSeen = 0;
    std::optional<int> _status;
};

struct Result {
    int status;
    std::string output;
    std::string errors;
};

// mediactl from start to end.
Result mediactl(std::vector<std::string> arguments);

// The same, as a user who is nobody here. The errors begin with "setpriv" where this world has no second user.
Result mediactlAsNobody(std::vector<std::string> arguments);

// The command line that starts one of the build's programs with these arguments.
std::vector<std::string> commandLine(const std::string& program, std::vector<std::string> arguments);

#endif
