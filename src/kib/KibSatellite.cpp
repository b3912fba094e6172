// SPDX-License-Identifier: MIT
#include "KibSatellite.h"

#include "KibLog.h"
#include "KibSatelliteImpl.h"

KibSatellite::KibSatellite() : impl_(std::make_unique<KibSatelliteImpl>(*this)) {}

// The connection is closed here, while the subclass's handlers can still be waited
// for; after this no library thread calls into the satellite.
KibSatellite::~KibSatellite() { impl_->disconnect(); }

void KibSatellite::setLogger(const boost::shared_ptr<CBBLog>& logger) { KibLog::setLogger(logger); }

int KibSatellite::Connect(const char* host, const char* satelliteName) {
    return impl_->connect(host, satelliteName);
}

int KibSatellite::ConnectUser(const char* user, const char* password) {
    impl_->setUser(user, password);
    return KIB_OK;
}

void KibSatellite::setConnectOptions(const KibConnectOptions& options) {
    impl_->setConnectOptions(options);
}

std::string KibSatellite::lastConnectError() const { return impl_->lastError(); }

std::string KibSatellite::credentialsRefusal() const { return impl_->credentialsRefusal(); }

int KibSatellite::Disconnect() { return impl_->disconnect(); }

int KibSatellite::Request(const char* satelliteName, const char* serviceName, const tagVARIANT& in,
                          tagVARIANT* out, KIBFLAGS flags, tagVARIANT* error) {
    KibReply reply;
    impl_->call(satelliteName, serviceName, in, reply, impl_->requestTimeout(),
                (flags & KIBFLAG_NO_REPLY) != 0);
    if (out != nullptr) {
        VariantClear(out);
        *out = reply.value.release();
    }
    if (error != nullptr) {
        VariantClear(error);
        if (reply.failed()) {
            error->vt = VT_BSTR;
            error->bstrVal = SysAllocStringLen(reply.errorText.data(),
                                               static_cast<unsigned int>(reply.errorText.size()));
        }
    }
    return reply.status;
}

int KibSatellite::DirectoryPingSatellite(const char* host, const char* satelliteName,
                                         unsigned short port, int timeoutMs, KIBSTATUS* status) {
    return impl_->ping(host, satelliteName, port,
                       timeoutMs > 0 ? timeoutMs : impl_->requestTimeout(), status);
}

int KibSatellite::GetSatelliteId(int* id) { return impl_->satelliteId(id); }

int KibSatellite::AddServiceAvailabilityListener(const char* satelliteName) {
    return impl_->addListener(satelliteName);
}

int KibSatellite::RemoveServiceAvailabilityListener(const char* satelliteName) {
    return impl_->removeListener(satelliteName);
}

int KibSatellite::CreateServices() { return KIB_OK; }

int KibSatellite::RegisterServices() { return impl_->registerServices(); }

int KibSatellite::UnregisterServices(bool removeServices) {
    return impl_->unregisterServices(removeServices);
}

int KibSatellite::AddService(const char* name, const char* description,
                             KibSatelliteDelegateGeneric* delegate) {
    return impl_->addService(name, description,
                             std::unique_ptr<KibSatelliteDelegateGeneric>(delegate));
}

int KibSatellite::AddService(const char* name, const char* description, ServiceFunction function) {
    if (function == nullptr) return KIB_E_INVALID_ARGUMENT;
    return AddService(name, description, new KibSatelliteDelegateFunction(function));
}

int KibSatellite::RemoveService(const char* name) { return impl_->removeService(name); }

int KibSatellite::OnServiceRequested(int, const char* caller, const char* service, tagVARIANT in,
                                     tagVARIANT* out, int* result) {
    return impl_->dispatch(caller, service, in, out, result);
}

void KibSatellite::OnServiceAvailabilityChanged(const char* satelliteName, const char* serviceName,
                                                int available) {
    KibLog::debug("Service %s.%s %s", satelliteName, serviceName,
                  available != 0 ? "available" : "unavailable");
}

void KibSatellite::OnStatusChange(int reason, KIBSTATUS status) {
    KibLog::debug("Bus status %d (%s)", static_cast<int>(status), KibStatusText(reason));
}

int KibSatellite::Call(const char* satelliteName, const char* serviceName, const tagVARIANT& in,
                       KibReply* reply, int timeoutMs) {
    KibReply local;
    KibReply& target = reply != nullptr ? *reply : local;
    return impl_->call(satelliteName, serviceName, in, target,
                       timeoutMs > 0 ? timeoutMs : impl_->requestTimeout(), false);
}

KibDeferredReply KibSatellite::DeferReply() { return impl_->deferReply(); }

std::string KibSatellite::CallerUser() const { return impl_->callerUser(); }

std::string KibSatellite::connectedUser() const { return impl_->user(); }

void KibSatellite::OnRequestRefused(const char*, const char*, const char*) {}

void KibSatellite::setRequestTimeout(int timeoutMs) { impl_->setRequestTimeout(timeoutMs); }

void KibSatellite::setReconnectWait(int waitMs) {
    impl_->setReconnectWait(waitMs > 0 ? waitMs : 1);
}

const char* KibSatellite::satelliteName() const { return impl_->name().c_str(); }
