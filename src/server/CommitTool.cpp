// commit: stage the document's one file, commit it under a fixed identity, optionally push.
#include "FileTools.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <vector>

namespace zserver {

namespace {

const char* const kAuthorName = "Ostrevik Owner";
const char* const kAuthorEmail = "owner@ostrevik.invalid";
const char* const kDefaultMessage = "update via ostrevik-server";

// Runs argv[0] from PATH in `directory` without a shell. Output goes to /dev/null, and so
// does input: a prompting git must not read the request stream or wait for it.
int runCmd(const std::vector<std::string>& argv, const std::string& directory) {
    std::vector<char*> args;
    args.reserve(argv.size() + 1);
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);

    pid_t pid = ::fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        if (::chdir(directory.c_str()) != 0) ::_exit(127);
        int out = ::open("/dev/null", O_WRONLY);
        if (out >= 0) {
            ::dup2(out, STDOUT_FILENO);
            ::dup2(out, STDERR_FILENO);
        }
        int in = ::open("/dev/null", O_RDONLY);
        if (in >= 0) ::dup2(in, STDIN_FILENO);
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    if (!WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

}  // namespace

ToolResult toolCommit(Session& session, const Reader& reader, const ostrevik::Path& args) {
    if (session.path.empty()) return {false, "no document path to commit; save or load a file first"};
    const std::string message = reader.str(args, "message").value_or(kDefaultMessage);
    const ostrevik::Property* pushProp = reader.prop(args, "push");
    const bool push = pushProp && pushProp->value.dtype == ostrevik::DType::Bool &&
                      !pushProp->value.data.empty() && pushProp->value.data[0] != 0;

    std::filesystem::path file(session.path);
    std::string dir = file.parent_path().string();
    if (dir.empty()) dir.push_back('.');
    const std::string name = file.filename().string();

    if (runCmd({"git", "add", "--", name}, dir) != 0)
        return {false, "git add failed (is " + dir + " a git repository?)"};
    const std::string author = std::string(kAuthorName) + " <" + kAuthorEmail + ">";
    const std::vector<std::string> commit = {
        "git", "-c", std::string("user.name=") + kAuthorName, "-c", std::string("user.email=") + kAuthorEmail,
        "commit", "-m", message, "--author=" + author, "--", name};
    if (runCmd(commit, dir) != 0) return {true, "nothing to commit (no changes since the last commit)"};

    std::string text = "committed " + name + " (\"" + message + "\")";
    if (!push) return {true, std::move(text)};
    if (runCmd({"git", "push"}, dir) != 0)
        return {false, text + "; push failed (no remote or auth?) — the commit is local; push it manually"};
    return {true, text + "; pushed"};
}

}  // namespace zserver
