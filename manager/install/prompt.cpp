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

// One line from the terminal; without echo for a password. False at its end.
static bool ReadLine(FILE *Tty, bool Hidden, std::string *Line)
{
    struct termios Old, Quiet;
    bool Restore = Hidden && tcgetattr(fileno(Tty), &Old) == 0;
    if (Restore) {
        Quiet = Old;
        Quiet.c_lflag &= ~(tcflag_t)ECHO;
        tcsetattr(fileno(Tty), TCSAFLUSH, &Quiet);
    }
    char Buffer[4096];
    bool Got = fgets(Buffer, sizeof Buffer, Tty) != nullptr;
    if (Restore) {
        tcsetattr(fileno(Tty), TCSAFLUSH, &Old);
        fputc('\n', Tty);
    }
    *Line = Got ? Buffer : "";
    while (!Line->empty() && (Line->back() == '\n' || Line->back() == '\r'))
        Line->pop_back();
    return Got;
}

static const Json *Verdict(const Json &Judged, const std::string &Name)
{
    for (const Json &J : Judged)
        if (J["name"] == Name)
            return &J;
    return nullptr;
}

static void Ask(FILE *Tty, const Json &Component, const Json &V, CkAnswers *A)
{
    std::string Name = CliStr(V["outputName"]);
    fprintf(Tty, "%s: %s\n  %s (%s)\n", CliStr(Component["file"]).c_str(), Name.c_str(),
            V["prompt"].is_string() ? V["prompt"].get<std::string>().c_str() : Name.c_str(),
            Limits(V).c_str());
    for (int Try = 0; Try < ASK_TRIES; Try++) {
        fputs("  > ", Tty);
        fflush(Tty);
        std::string Line;
        if (!ReadLine(Tty, CkIsPassword(V), &Line))
            return;
        A->Values[Name] = Line;
        const Json *J = Verdict(CkJudgeConfiguration(Component, *A), Name);
        if (J == nullptr || (*J)["state"] != "invalid")
            return;
        fprintf(Tty, "  %s\n", CliStr((*J)["reason"]).c_str());
    }
    A->Values.erase(Name);
}

void InAskMissing(const Json &Component, CkAnswers *A)
{
    FILE *Tty = nullptr;
    for (const char *Phase : {"preConfiguration", "postConfiguration"})
        for (const Json &V : Component[Phase]) {
            const Json *J = Verdict(CkJudgeConfiguration(Component, *A), CliStr(V["outputName"]));
            if (J == nullptr || (*J)["state"] != "missing")
                continue;
            if (Tty == nullptr && (Tty = fopen("/dev/tty", "r+e")) == nullptr)
                return;
            Ask(Tty, Component, V, A);
        }
    if (Tty != nullptr)
        fclose(Tty);
}
