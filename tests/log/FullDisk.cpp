// SPDX-License-Identifier: MIT
// The full-disk scenario, run by log_test_helper inside a mount namespace of its own:
// mounts a small tmpfs on the logs folder, fills it with numbered texts until the
// logger refuses them, checks that the file holds exactly the acknowledged texts, whole
// and in order, frees space and checks that writing resumes. Exit 0: all held; 77: no
// file system could be mounted (the reason on standard error); 3: a check failed; 2:
// the inherited settings do not name <folder> as the logs folder.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/mount.h>
#include <unistd.h>

#include "CBBLog.h"

namespace {

constexpr int kMaxTexts = 4000;  // far more than the file system holds
constexpr int kBurst = 40;       // texts queued before waiting for their outcomes
constexpr size_t kFillerBytes = 32 * 1024;

std::string readAll(const std::string& path) {
    std::string text;
    if (FILE* file = fopen(path.c_str(), "rb")) {
        char buffer[4096];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) text.append(buffer, n);
        fclose(file);
    }
    return text;
}

std::string textOf(int index) {
    char text[128];
    snprintf(text, sizeof(text), "line-%05d-%s\n", index, std::string(88, 'x').c_str());
    return text;  // 100 bytes
}

// Outcomes of queued texts, filled in by their completions.
class Ledger {
public:
    void queue(CBBLog& log, int index) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            errors_.resize(static_cast<size_t>(index) + 1, -1);
        }
        log.AddRawLog(textOf(index), [this, index](int error, const CStdStr& message) {
            std::lock_guard<std::mutex> lock(mutex_);
            errors_[static_cast<size_t>(index)] = error;
            if (error != 0 && firstMessage_.empty()) firstMessage_ = message;
        });
    }
    // Waits (at most ten seconds) until every queued text has its outcome.
    bool settle() {
        for (int i = 0; i < 10000; ++i) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                bool all = true;
                for (int e : errors_) all = all && e != -1;
                if (all) return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return false;
    }
    // The file's content that the acknowledged texts make, in order.
    std::string acknowledged() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string text;
        for (size_t i = 0; i < errors_.size(); ++i) {
            if (errors_[i] == 0) text += textOf(static_cast<int>(i));
        }
        return text;
    }
    int count(bool failed) {
        std::lock_guard<std::mutex> lock(mutex_);
        int n = 0;
        for (int e : errors_) n += (e != 0) == failed;
        return n;
    }
    bool onlyNoSpace() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (int e : errors_) {
            if (e != 0 && e != ENOSPC) return false;
        }
        return true;
    }
    std::string firstMessage() {
        std::lock_guard<std::mutex> lock(mutex_);
        return firstMessage_;
    }

private:
    std::mutex mutex_;
    std::vector<int> errors_;
    std::string firstMessage_;
};

bool check(bool ok, const char* what) {
    if (!ok) fprintf(stderr, "full disk: %s\n", what);
    return ok;
}

}  // namespace

int runFullDisk(const std::string& folder) {
    // The logger echoes every text to standard output; the findings go to standard error.
    if (freopen("/dev/null", "w", stdout) == nullptr) return 1;
    if (CBBLog::getLogsDirectory() != folder) {
        fprintf(stderr, "the settings name another logs folder than %s\n", folder.c_str());
        return 2;
    }
    if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=128k,mode=0755") != 0) {
        fprintf(stderr, "cannot mount a tmpfs on %s: %s\n", folder.c_str(), strerror(errno));
        return 77;
    }
    const std::string filler = folder + "/filler";
    if (FILE* file = fopen(filler.c_str(), "wb")) {
        const std::string bytes(kFillerBytes, 'f');
        fwrite(bytes.data(), 1, bytes.size(), file);
        fclose(file);
    }
    const std::string path = folder + "/full.log";
    Ledger ledger;
    bool ok = true;
    {
        CBBLog log("full.log", false, 64LL * 1024 * 1024);
        int next = 0;
        while (next < kMaxTexts && ledger.count(true) < kBurst) {
            for (int i = 0; i < kBurst; ++i) ledger.queue(log, next++);
            ok = check(ledger.settle(), "texts without an outcome while filling") && ok;
        }
        ok = check(ledger.count(true) > 0, "the file system never filled up") && ok;
        ok = check(ledger.onlyNoSpace(), "a failure other than ENOSPC") && ok;
        ok = check(ledger.firstMessage() == "cannot write '" + path + "': No space left on device",
                   "unexpected failure message") &&
             ok;
        ok = check(readAll(path) == ledger.acknowledged(),
                   "the full file differs from the acknowledged texts") &&
             ok;
        const int failedWhileFull = ledger.count(true);

        // Space returns: the next texts are written without any help.
        unlink(filler.c_str());
        for (int i = 0; i < kBurst; ++i) ledger.queue(log, next++);
        ok = check(ledger.settle(), "texts without an outcome after freeing space") && ok;
        ok =
            check(ledger.count(true) == failedWhileFull, "a text failed after freeing space") && ok;
        ok = check(readAll(path) == ledger.acknowledged(),
                   "the file differs from the acknowledged texts after freeing space") &&
             ok;
        fprintf(stderr, "acknowledged %d, refused %d\n", ledger.count(false), failedWhileFull);
    }
    return ok ? 0 : 3;
}
