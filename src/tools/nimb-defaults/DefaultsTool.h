// SPDX-License-Identifier: MIT
// DefaultsTool: the command-line front end of the settings store (nimb-defaults).
// Reads, writes and deletes values of one preferences domain, named either as a
// domain ("com.pellix.nimb") or as a key path ("Software\Pellix\Nimb"). Results go to
// the output stream, every failure to the error stream as one line, and run()
// returns the process exit status. Owned by main(); one thread.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <QVariant>

#include "StdString.h"

class CSettingsDomain;

class DefaultsTool {
public:
    // Exit statuses of run().
    static constexpr int kSuccess = 0;
    static constexpr int kFailure = 1;  // value or domain missing, store unusable
    static constexpr int kUsage = 2;    // bad command line

    // Borrows both streams for the object's lifetime.
    DefaultsTool(std::ostream& out, std::ostream& err);
    DefaultsTool(const DefaultsTool&) = delete;
    DefaultsTool& operator=(const DefaultsTool&) = delete;
    ~DefaultsTool() = default;

    // Runs one command; `args` are the arguments after the program name.
    int run(const std::vector<std::string>& args);

    // The domain that a command-line argument names: a key path (anything holding a
    // backslash) is mapped as the settings store maps it, anything else is taken as
    // the domain name itself.
    static CStdStr domainFor(const std::string& domainOrKey);

private:
    int read(const std::vector<std::string>& args);
    int write(const std::vector<std::string>& args);
    int remove(const std::vector<std::string>& args);
    int printHelp();

    // Parses "-int N", "-string S" or "-bool true|false"; reports a bad one.
    bool parseValue(const std::string& type, const std::string& text, QVariant& value);
    // Opens and synchronises the domain; reports why it failed.
    bool open(CSettingsDomain& domain);
    void printDomain(const CSettingsDomain& domain);

    int usageError(const std::string& message);
    int failure(const std::string& message);

    // Borrowed, outlive this object.
    std::ostream& out_;
    std::ostream& err_;
};
