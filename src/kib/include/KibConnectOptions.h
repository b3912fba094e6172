// SPDX-License-Identifier: MIT
// KibConnectOptions: how a satellite secures its connection to the bus directory (the
// certificate authority that the server's certificate must chain to, and the file that
// holds the satellite's credentials) and whether it batches replies. Plain data, copied into the
// satellite by KibSatellite::setConnectOptions; the files are read when Connect runs.
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
    // Opens a second connection for the deferred replies completed inside a KibReplyBatch,
    // so that each batch leaves in one socket write (on the satellite's own connection
    // every reply is its own write). Off: a batch's replies leave one by one.
    bool batchReplies = false;
};

// `hosts` (as given to KibSatellite::Connect) with the user name and password that its
// URLs may carry replaced by "***", for messages and logs.
std::string KibDisplayHost(const std::string& hosts);
