// SPDX-License-Identifier: MIT
// KibSatellite: one satellite on the component bus. It connects to the bus directory
// (a NATS server), offers services that other satellites request by name, and
// requests their services in turn. Subclasses override CreateServices to add their
// services; the other virtual operations keep the library's behaviour unless a
// subclass has a reason to change them. The creator owns the satellite; the library
// owns the delegates handed to AddService. Connection management (Connect,
// Disconnect, Register/Unregister, listeners) is for one thread at a time;
// Request, Call and DirectoryPingSatellite may be called from any thread, handlers
// included. Service handlers and the On... notifications run on the library's threads.
// Errors: this is a C-shaped interface, so every operation returns a KIB_ status
// (KibStatus.h) and never throws; a request that fails carries the reason in its reply.
// At the bus boundary the direction reverses: a service handler reports a bad request
// by throwing (KibException and its family), which the library turns into an error
// reply; inside the library, decoders return status values with an error text.
#pragma once

#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include "KibConnectOptions.h"
#include "KibDeferredReply.h"
#include "KibReply.h"
#include "KibSatelliteDelegate.h"
#include "KibStatus.h"
#include "KibVariant.h"

class CBBLog;
class KibSatelliteImpl;

class KibSatellite {
public:
    using ServiceFunction = int (*)(const char*, const tagVARIANT&, tagVARIANT*);

    KibSatellite();
    KibSatellite(const KibSatellite&) = delete;
    KibSatellite& operator=(const KibSatellite&) = delete;
    // Disconnects (waiting for running handlers) and deletes the delegates. A subclass
    // whose handlers use its own members calls Disconnect in its own destructor, so
    // that no handler runs while those members are being destroyed.
    virtual ~KibSatellite();

    // The logger for the library's own diagnostics, shared by every satellite of the
    // process; without one they go to the process's default logger. Call at start-up.
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    // Connects to the bus directory at `host` ("host", "host:port" or a URL, port 4222 by
    // default; a comma-separated list names several servers of one cluster: any of them
    // is used and the others take over when it fails), announces the satellite as `satelliteName`,
    // calls CreateServices and registers the services. Returns KIB_OK, or a KIB_E_ code
    // (KIB_E_CONNECT_FAILED when no directory answers, KIB_E_NOT_PERMITTED when it refuses
    // the credentials) or CreateServices' non-zero status, in which
    // case the satellite is left disconnected. Blocks for at most a few seconds. Once connected, a
    // lost connection is re-established without end; OnStatusChange reports it.
    virtual int Connect(const char* host, const char* satelliteName);
    // Credentials used by the following Connect calls (null clears them).
    virtual int ConnectUser(const char* user, const char* password);
    // TLS and the credentials file for the following Connect calls and ping connections;
    // a credentials file takes precedence over ConnectUser. Management thread.
    void setConnectOptions(const KibConnectOptions& options);
    // Why the last Connect or ping connection failed (the server's refusal, the TLS
    // error, an unreadable credentials file), or "" after a success. Never holds a
    // secret. Management thread.
    std::string lastConnectError() const;
    // The bus server's refusal of this satellite's credentials on its established
    // connection (they were revoked or replaced: "Authorization Violation"), or "" while
    // they are accepted. The client gives up reconnecting after two such refusals in a
    // row, reports KIB_E_NOT_PERMITTED / KIBSTATUS_DISCONNECTED to OnStatusChange, and
    // every request fails with KIB_E_NOT_PERMITTED from then on; Connect anew with other
    // credentials. (A Connect refused from the start returns KIB_E_NOT_PERMITTED and
    // says why in lastConnectError.) Management thread.
    std::string credentialsRefusal() const;
    // Unregisters and removes every service, stops listening and closes the connection,
    // waiting (boundedly) for running handlers. Must not be called from a handler.
    virtual int Disconnect();
    // Calls `serviceName` of `satelliteName` with `in` (borrowed). `out` and `error`, if
    // given, must hold valid values (VariantInit'ed at least): they are cleared, then
    // `out` receives the result value and `error` the error text as a VT_BSTR (VT_EMPTY
    // when there was no error); the caller owns both. Returns the handler's own return value, or
    // KIB_E_SERVICE_EXCEPTION when it threw, or another KIB_E_ code when the call did
    // not get through (KIB_E_NOT_PERMITTED, as soon as the server says so, when this
    // account may not call that service). Blocks up to the request timeout (see
    // setRequestTimeout).
    virtual int Request(const char* satelliteName, const char* serviceName, const tagVARIANT& in,
                        tagVARIANT* out, KIBFLAGS flags, tagVARIANT* error);
    // Asks whether a satellite named `satelliteName` is on the bus. With `host` null or
    // empty the satellite's own connection is used; otherwise a short-lived connection
    // to `host` (`port` when non-zero, else the host's port or 4222). Sets `*status` to
    // KIBSTATUS_CONNECTED when it answered within `timeoutMs`, else DISCONNECTED.
    // Returns KIB_OK, KIB_E_NO_RESPONDERS, KIB_E_TIMEOUT or a connection error.
    virtual int DirectoryPingSatellite(const char* host, const char* satelliteName,
                                       unsigned short port, int timeoutMs, KIBSTATUS* status);
    // This connection's instance id (positive, random per Connect).
    virtual int GetSatelliteId(int* id);
    // Starts reporting, through OnServiceAvailabilityChanged, the services that the
    // satellite `satelliteName` ("*": every satellite) offers now and later.
    virtual int AddServiceAvailabilityListener(const char* satelliteName);
    virtual int RemoveServiceAvailabilityListener(const char* satelliteName);
    // Adds the satellite's services with AddService; called by Connect. The library's
    // version adds none. Returns the status Connect should see (0 for success).
    virtual int CreateServices();
    // Makes every added service reachable and announces them. Called by Connect.
    virtual int RegisterServices();
    // Makes the services unreachable and announces it; with `removeServices` true the
    // services (and their delegates) are deleted as well.
    virtual int UnregisterServices(bool removeServices);
    // Adds a service; takes ownership of `delegate` (also on failure). While the
    // satellite is registered the service becomes reachable at once.
    virtual int AddService(const char* name, const char* description,
                           KibSatelliteDelegateGeneric* delegate);
    virtual int AddService(const char* name, const char* description, ServiceFunction function);
    // Removes a service and deletes its delegate, after its running request finished.
    // Requests for it then fail with KIB_E_NO_RESPONDERS. Not from that service's handler.
    virtual int RemoveService(const char* name);
    // Dispatches one request (library thread): runs the service's delegate with
    // `caller` and `in` (borrowed: the library releases it) and stores its return value
    // in `*result`. Returns KIB_OK or KIB_E_NO_SUCH_SERVICE. Exceptions pass through.
    virtual int OnServiceRequested(int requestId, const char* caller, const char* service,
                                   tagVARIANT in, tagVARIANT* out, int* result);
    // A watched service became available (1) or unavailable (0). Library thread; the
    // library's version only logs.
    virtual void OnServiceAvailabilityChanged(const char* satelliteName, const char* serviceName,
                                              int available);
    // The connection changed state: `reason` is KIB_OK on recovery or the KIB_E_ code of
    // the loss. Library thread; the library's version only logs.
    virtual void OnStatusChange(int reason, KIBSTATUS status);

    // Like Request, with the whole reply (error kind and exception code included) and
    // an explicit timeout in milliseconds. Returns reply->status.
    int Call(const char* satelliteName, const char* serviceName, const tagVARIANT& in,
             KibReply* reply, int timeoutMs);
    // Called by a service handler while it serves a request: takes that request's reply,
    // which the library then does not send when the handler returns; the handler (or
    // anyone it hands the handle to) completes it later, from any thread. A handler
    // that throws after deferring is answered with its exception as usual. Taken twice,
    // it is the same reply. Outside a handler of this satellite: an empty handle.
    KibDeferredReply DeferReply();
    // Called by a service handler while it serves a request: the bus user the request
    // came from, as the last token of its subject ("kib.svc.<satellite>.<service>.<user>")
    // says, or "" for a request sent without one (an open bus). Only a server whose
    // permissions pin that token (nimb-bus-setup's) makes it proof of anything; the
    // handler decides whether to trust it. Outside a handler of this satellite: "".
    std::string CallerUser() const;
    // The bus user this satellite connected as (from its credentials file or
    // ConnectUser), "" without one or with a NATS credentials file. Management thread.
    std::string connectedUser() const;
    // A request was dropped unserved because its reply subject lies outside the caller's
    // own inbox (`reason` says how); `user` is the caller's user token ("" without one).
    // Library thread; the library's version does nothing (it logs the refusal itself).
    virtual void OnRequestRefused(const char* service, const char* user, const char* reason);
    // Timeout of Request and of the ping without explicit timeout; 5000 ms by default.
    void setRequestTimeout(int timeoutMs);
    // Time between two reconnection attempts after a lost connection, used by the next
    // Connect; 250 ms by default. Attempts never stop, however long the outage.
    void setReconnectWait(int waitMs);
    // The name given to Connect, or "" when not connected.
    const char* satelliteName() const;

private:
    std::unique_ptr<KibSatelliteImpl> impl_;
};
