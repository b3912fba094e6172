// SPDX-License-Identifier: MIT
// SyslogRateBucket: the rate bound of one sender address, a token bucket that refills
// `rate` lines a second up to two seconds' worth. A connection may run into debt by the
// lines of one read; it is then held back until the debt is paid. Listener thread.
#pragma once

class SyslogRateBucket {
public:
    SyslogRateBucket() = default;
    SyslogRateBucket(double rate, double nowSeconds)
        : rate_(rate), tokens_(rate * 2), last_(nowSeconds) {}

    // Refills for the time since the last call.
    void refill(double nowSeconds) {
        tokens_ += (nowSeconds - last_) * rate_;
        if (tokens_ > rate_ * 2) tokens_ = rate_ * 2;
        last_ = nowSeconds;
    }
    // Whether a line may pass now.
    bool hasRoom() const { return tokens_ >= 1; }
    // Takes one line, even into debt.
    void take() { tokens_ -= 1; }
    bool isFull() const { return tokens_ >= rate_ * 2; }

private:
    double rate_ = 0;
    double tokens_ = 0;
    double last_ = 0;
};
