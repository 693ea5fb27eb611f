// prompt.cpp - the answers a terminal gives: every configuration variable of a component that is
// required, unanswered and without a default is asked for on /dev/tty (its prompt, limits and
// default shown; a password read without echo), judged by the check's rules and asked again, at
// most three times, while it is invalid. Writes the terminal's echo setting while a password is
// typed, and puts it back.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "install.h"

#define ASK_TRIES 3

static std::string Limits(const Json &V)
{
    std::string Text = "length " + std::to_string(V["minimumLength"].get<unsigned>()) + " to " +
                       std::to_string(V["maximumLength"].get<unsigned>());
    if (V["acceptableCharacters"].is_string())
        Text += ", characters \"" + V["acceptableCharacters"].get<std::string>() + "\"";
    if (V["requiredFormat"].is_string())
        Text += ", format " + V["requiredFormat"].get<std::string>();
    if (V["defaultValue"].is_string() && !CkIsPassword(V))
        Text += ", default \"" + V["defaultValue"].get<std::string>() + "\"";
    return Text;
}

// Shows the prompt and reads one line from the terminal; for a password, echo is off before the
// prompt is shown (an answer typed as soon as it appears is not echoed, and nothing typed is
// flushed) and back on after. False at the terminal's end.
static bool ReadLine(FILE *Tty, bool Hidden, std::string *Line)
{
    struct termios Old, Quiet;
    bool Restore = Hidden && tcgetattr(fileno(Tty), &Old) == 0;
    if (Restore) {
        Quiet = Old;
        Quiet.c_lflag &= ~(tcflag_t)ECHO;
        tcsetattr(fileno(Tty), TCSANOW, &Quiet);
    }
    fputs("  > ", Tty);
    fflush(Tty);
    char Buffer[4096];
    bool Got = fgets(Buffer, sizeof Buffer, Tty) != nullptr;
    if (Restore) {
        tcsetattr(fileno(Tty), TCSANOW, &Old);
        fputc('\n', Tty);
    }
    *Line = Got ? Buffer : "";
    while (!Line->empty() && (Line->back() == '\n' || Line->back() == '\r'))
        Line->pop_back();
    return Got;
}

// The state check gives the variable Name with the answers as they stand ("" when none).
static std::string StateOf(const Json &Component, const CkAnswers &A, const std::string &Name,
                           std::string *Reason = nullptr)
{
    for (const Json &J : CkJudgeConfiguration(Component, A))
        if (J["name"] == Name) {
            if (Reason != nullptr)
                *Reason = CliStr(J["reason"]);
            return CliStr(J["state"]);
        }
    return "";
}

static void Ask(FILE *Tty, const Json &Component, const Json &V, CkAnswers *A)
{
    std::string Name = CliStr(V["outputName"]);
    fprintf(Tty, "%s: %s\n  %s (%s)\n", CliStr(Component["file"]).c_str(), Name.c_str(),
            V["prompt"].is_string() ? V["prompt"].get<std::string>().c_str() : Name.c_str(),
            Limits(V).c_str());
    for (int Try = 0; Try < ASK_TRIES; Try++) {
        std::string Line;
        if (!ReadLine(Tty, CkIsPassword(V), &Line))
            return;
        A->Values[Name] = Line;
        std::string Reason;
        if (StateOf(Component, *A, Name, &Reason) != "invalid")
            return;
        fprintf(Tty, "  %s\n", Reason.c_str());
    }
    A->Values.erase(Name);
}

void InAskMissing(const Json &Component, CkAnswers *A)
{
    FILE *Tty = nullptr;
    for (const char *Phase : {"preConfiguration", "postConfiguration"})
        for (const Json &V : Component[Phase]) {
            if (StateOf(Component, *A, CliStr(V["outputName"])) != "missing")
                continue;
            if (Tty == nullptr && (Tty = fopen("/dev/tty", "r+e")) == nullptr)
                return;
            Ask(Tty, Component, V, A);
        }
    if (Tty != nullptr)
        fclose(Tty);
}
