#include "mapi/spool/SendmailDelivery.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <unistd.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>

#include "mapi/spool/RemoteDelivery.h"
#include "support/FileDescriptor.h"
#include "support/PipeSignalGuard.h"

extern char** environ;

namespace velmar::mapi {
namespace {

constexpr size_t kMaxErrorText = 64 * 1024;

}  // namespace

bool SendmailAvailable() {
    return access(kSendmailProgram, X_OK) == 0;
}

CSendmailResult SubmitBySendmail(const std::string& from, const std::vector<std::string>& recipients,
                                 std::string_view message, const char* program) {
    CSendmailResult result;
    int input[2] = {-1, -1};
    if (pipe2(input, O_CLOEXEC) != 0) {
        result.text = std::string("cannot make a pipe: ") + std::strerror(errno);
        return result;
    }
    CFileDescriptor inputRead(input[0]), inputWrite(input[1]);
    int errors[2] = {-1, -1};
    if (pipe2(errors, O_CLOEXEC) != 0) {
        result.text = std::string("cannot make a pipe: ") + std::strerror(errno);
        return result;
    }
    CFileDescriptor errorRead(errors[0]), errorWrite(errors[1]);
    std::vector<std::string> arguments{program, "-i", "-f", from, "--"};
    arguments.insert(arguments.end(), recipients.begin(), recipients.end());
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, inputRead.get(), STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorWrite.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorWrite.get(), STDERR_FILENO);
    pid_t child = -1;
    const int spawned = posix_spawn(&child, program, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    inputRead.Reset();
    errorWrite.Reset();
    if (spawned != 0) {
        result.text = std::string("cannot run ") + program + ": " + std::strerror(spawned);
        return result;
    }
    const CPipeSignalGuard pipeSignal;
    // The message goes in while what the program says is read, so neither side waits for the other.
    fcntl(inputWrite.get(), F_SETFL, O_NONBLOCK);
    size_t sent = 0;
    bool writing = true;
    bool reading = true;
    while (writing || reading) {
        pollfd fds[2] = {{reading ? errorRead.get() : -1, POLLIN, 0},
                         {writing ? inputWrite.get() : -1, POLLOUT, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        if (writing && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = write(inputWrite.get(), message.data() + sent, message.size() - sent);
            if (n > 0) sent += static_cast<size_t>(n);
            if ((n < 0 && errno != EAGAIN && errno != EINTR) || sent == message.size()) {
                writing = false;
                inputWrite.Reset();
            }
        }
        if (reading && (fds[0].revents & (POLLIN | POLLHUP | POLLERR))) {
            char buffer[4096];
            const ssize_t n = read(errorRead.get(), buffer, sizeof buffer);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0)
                reading = false;
            else if (result.text.size() < kMaxErrorText)
                result.text.append(buffer, static_cast<size_t>(n));
        }
    }
    inputWrite.Reset();
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const bool complete = sent == message.size();
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && complete) {
        result.outcome = DeliveryOutcome::Accepted;
    } else if (WIFEXITED(status)) {
        const int code = WEXITSTATUS(status);
        const bool permanent = code == 65 || code == 67 || code == 68 || code == 77;
        result.outcome = permanent ? DeliveryOutcome::Permanent : DeliveryOutcome::Temporary;
        if (code == 0)
            result.text = std::string(program) + " ended before it read the whole message";
        else if (result.text.empty())
            result.text = std::string(program) + " ended with " + std::to_string(code);
    } else {
        result.text = std::string(program) + " was stopped by a signal";
    }
    return result;
}

namespace {

class CSendmailDelivery final : public IRemoteDelivery {
public:
    bool Available(const CProfile&) const override { return SendmailAvailable(); }

    // The program's verdict is one for all the recipients.
    CRemoteResult Deliver(const CProfile&, const std::string& from,
                          const std::vector<std::string>& recipients, const std::string& message,
                          const std::atomic<bool>&) const override {
        CRemoteResult result;
        const CSendmailResult sent = SubmitBySendmail(from, recipients, message);
        if (sent.outcome == DeliveryOutcome::Accepted) {
            result.accepted = recipients;
        } else if (sent.outcome == DeliveryOutcome::Permanent) {
            for (const std::string& recipient : recipients) result.refused.push_back({recipient, sent.text});
        } else {
            result.problem = sent.text;
        }
        return result;
    }
};

}  // namespace

const IRemoteDelivery& SendmailDelivery() {
    static const CSendmailDelivery delivery;
    return delivery;
}

}  // namespace velmar::mapi
