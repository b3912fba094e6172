// SPDX-License-Identifier: MIT
// KibConnectOptions: how a satellite secures its connection to the bus directory: the
// certificate authority that the server's certificate must chain to, and the file that
// holds the satellite's credentials. Plain data, copied into the satellite by
// KibSatellite::setConnectOptions; the files are read when Connect runs.
#pragma once

#include <string>

struct KibConnectOptions {
    // PEM file of the certificate authority. When set, every connection uses TLS and the
    // server's certificate is verified against it (and its name against the host's).
    std::string caFile;
    // Credentials file: either "user=NAME" and "password=SECRET" lines (blank lines and
    // lines starting with "#" are ignored), or a NATS credentials file (a user JWT and its
    // NKey seed). Empty: no credentials beyond those a URL may carry. The file should be
    // readable by its owner only; its content is never logged.
    std::string credentialsFile;
};

// `hosts` (as given to KibSatellite::Connect) with the user name and password that its
// URLs may carry replaced by "***", for messages and logs.
std::string KibDisplayHost(const std::string& hosts);
