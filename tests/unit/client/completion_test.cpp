// SPDX-License-Identifier: GPL-2.0-only
// The completion scripts, in the shells that they are for.
#include "program.h"

#include <cstdlib>
#include <set>

namespace
{

using namespace test;

class Completion : public Program
{
  protected:
    Completion()
    {
        fs::create_directory(bin);
        fs::create_symlink(QBACKUP_PROGRAM, bin / "qbackup");
    }
    // What the shell prints when it is given this script; the program is in its PATH.
    std::string shell(const std::string& words, const std::string& script)
    {
        std::ofstream{machine.directory / "script"} << script;
        const fs::path out = machine.directory / "told";
        const std::string line = "cd '" + machine.directory.path().string() + "' && env PATH='" + bin.string() +
                                 "':\"$PATH\" HOME='" + machine.directory.path().string() + "' timeout 60 " + words +
                                 " ./script </dev/null >'" + out.string() + "' 2>&1";
        EXPECT_EQ(std::system(line.c_str()), 0) << line << "\n" << readText(out);
        return readText(out);
    }
    static std::set<std::string> lines(const std::string& text)
    {
        std::set<std::string> all;
        std::istringstream in{text};
        for (std::string line; std::getline(in, line);)
            all.insert(line.substr(0, line.find('\t')));
        return all;
    }
    std::set<std::string> bash(const std::string& words)
    {
        return lines(shell("bash --norc", "eval \"$(qbackup completion bash)\"\nCOMP_WORDS=(" + words +
                                              ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_qbackup 2>/dev/null\n"
                                              "printf '%s\\n' \"${COMPREPLY[@]}\"\n"));
    }
    std::set<std::string> fish(const std::string& words)
    {
        return lines(shell("fish --no-config", "qbackup completion fish | source\ncomplete -C '" + words + "'\n"));
    }
    // Types the words, a tab and an end of line into a shell with a terminal of its own, where qbackup tells what it is
    // given.
    std::string zsh(const std::string& words)
    {
        return shell("zsh -f", R"~(
zmodload zsh/zpty
zpty -b inner zsh -f -i
await() { # until it has said that: a look at a time
  local part
  repeat 300; do
    while zpty -r -t inner part; do text+=$part; done
    [[ $text == *$1* ]] && return 0
    sleep 0.1
  done
  return 1
}
zpty -w inner 'PS1=; autoload -Uz compinit; compinit -u -D; eval "$(qbackup completion zsh)"; qbackup() { print -r -- "<$*>" }; print re""ady'
await ready
text=
zpty -w -n inner $')~" + words + R"~(\t'
sleep 1
zpty -w -n inner $'\r'
await '>'
print -r -- $text
zpty -d inner
)~");
    }
    fs::path bin = machine.directory / "bin";
};

const std::set<std::string> modes{"auto", "full", "inc"};

TEST_F(Completion, OfBashKnowsSubcommands)
{
    EXPECT_EQ(bash("qbackup re"), (std::set<std::string>{"restore", "report"}));
}

TEST_F(Completion, OfBashKnowsTheOptionsOfEachSubcommand)
{
    EXPECT_EQ(bash("qbackup backup --c"), (std::set<std::string>{"--cache-blocks", "--compress", "--control"}));
    EXPECT_EQ(bash("qbackup verify --c"), (std::set<std::string>{"--control"}));
}

TEST_F(Completion, OfBashKnowsTheValuesThatThereAre)
{
    EXPECT_EQ(bash("qbackup backup --mode ''"), modes);
    EXPECT_EQ(bash("qbackup completion ''"), (std::set<std::string>{"bash", "fish", "zsh"}));
}

TEST_F(Completion, OfBashKnowsTheIdsOfTheBackups)
{
    const json taken = backup().document();
    EXPECT_EQ(bash("qbackup restore --from '" + machine.directory.path().string() + "' --at ''"),
              (std::set<std::string>{taken["id"]}));
}

TEST_F(Completion, KnowsTheJobsOfTheConfiguration)
{
    const fs::path config = machine.directory / "qbackup.toml";
    for (const char* name : {"nightly", "weekly"})
        std::ofstream{config, std::ios::app} << "[job." << name << "]\ndevices = [\"sda1\"]\ntarget = \"/nowhere\"\n";
    ::setenv("QBACKUP_CONFIG", config.c_str(), 1);
    const std::set<std::string> jobs{"nightly", "weekly"};
    EXPECT_EQ(bash("qbackup run ''"), jobs);
    EXPECT_EQ(fish("qbackup run "), jobs);
    EXPECT_NE(zsh("qbackup run ni").find("<run nightly>"), std::string::npos);
    ::unsetenv("QBACKUP_CONFIG");
}

TEST_F(Completion, OfBashKnowsFiles)
{
    EXPECT_EQ(bash("qbackup show scr"), (std::set<std::string>{"script"}));
    EXPECT_EQ(bash("qbackup verify --from scr"), (std::set<std::string>{"script"}));
}

TEST_F(Completion, OfFishKnowsSubcommandsOptionsAndValues)
{
    EXPECT_EQ(fish("qbackup re"), (std::set<std::string>{"restore", "report"}));
    EXPECT_EQ(fish("qbackup backup --ca"), (std::set<std::string>{"--cache-blocks"}));
    EXPECT_EQ(fish("qbackup verify --ca"), std::set<std::string>{});
    EXPECT_EQ(fish("qbackup backup --mode "), modes);
    EXPECT_EQ(fish("qbackup completion "), (std::set<std::string>{"bash", "fish", "zsh"}));
}

TEST_F(Completion, OfFishKnowsTheIdsOfTheBackups)
{
    const json taken = backup().document();
    EXPECT_EQ(fish("qbackup restore --from " + machine.directory.path().string() + " --at "),
              (std::set<std::string>{taken["id"]}));
}

TEST_F(Completion, OfZshKnowsSubcommandsOptionsAndValues)
{
    EXPECT_NE(zsh("qbackup ver").find("<verify>"), std::string::npos);
    EXPECT_NE(zsh("qbackup backup --cac").find("<backup --cache-blocks>"), std::string::npos);
    EXPECT_NE(zsh("qbackup backup --mode f").find("<backup --mode full>"), std::string::npos);
    EXPECT_NE(zsh("qbackup completion z").find("<completion zsh>"), std::string::npos);
}

TEST_F(Completion, ForAShellThatIsNotKnownIsRefused) { EXPECT_EQ(call({"completion", "csh"}).code, 2); }

} // namespace
