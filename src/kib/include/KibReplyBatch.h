// SPDX-License-Identifier: MIT
// KibReplyBatch: a scope in which the deferred replies completed on one thread leave
// together. While an instance lives on a thread, each KibDeferredReply completed on
// that thread (succeed or fail) is encoded and kept back; when the outermost instance
// on the thread ends, the replies kept for each satellite leave in one socket write
// (a batch of more than 64 KiB in several large ones). A reply completed on another
// thread, or on this one outside any batch, leaves at once as always.
//
// Batches need the satellite's reply connection (KibConnectOptions::batchReplies);
// without it the replies of a batch leave one by one as they are completed. A reply
// completed in a batch is sent even if the satellite disconnects before the batch
// ends (Disconnect writes what is held); one completed after the disconnection is
// dropped, as outside a batch.
//
// For a thread that completes many replies at once (a disk writer after each write):
//     {
//         const KibReplyBatch batch;
//         for (Entry& entry : written) entry.reply.succeed(KIB_OK);
//     }  // the replies leave here
#pragma once

class KibReplyBatch {
public:
    // Opens a batch on this thread; nested batches end with the outermost one.
    KibReplyBatch();
    KibReplyBatch(const KibReplyBatch&) = delete;
    KibReplyBatch& operator=(const KibReplyBatch&) = delete;
    // Sends what this thread kept back, when it is the outermost batch. Never throws;
    // may block briefly on the connection.
    ~KibReplyBatch();
};
