// SPDX-License-Identifier: MIT
// Service delegates: the objects through which the bus library calls a service
// handler. A delegate handed to KibSatellite::AddService belongs to the library from
// then on and is deleted when the service is removed. Invoke runs on a thread of the
// bus library; one service's requests are delivered one at a time.
#pragma once

#include "KibVariant.h"

// Abstract service handler: `caller` is the requesting satellite's name (borrowed),
// `in` the request value (borrowed), `out` the result value to fill (it starts
// VT_EMPTY and is sent back and released by the library). The return value travels
// to the requester as the reply's status. An exception leaving Invoke becomes an
// error reply; the service keeps serving.
class KibSatelliteDelegateGeneric {
public:
    KibSatelliteDelegateGeneric() = default;
    KibSatelliteDelegateGeneric(const KibSatelliteDelegateGeneric&) = delete;
    KibSatelliteDelegateGeneric& operator=(const KibSatelliteDelegateGeneric&) = delete;
    virtual ~KibSatelliteDelegateGeneric() = default;

    virtual int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) = 0;
};

// Calls a member function on an object the delegate borrows; the object must outlive
// the service (remove the service or disconnect before destroying it).
template <typename T>
class KibSatelliteDelegateMember : public KibSatelliteDelegateGeneric {
public:
    using Method = int (T::*)(const char*, const tagVARIANT&, tagVARIANT*);

    KibSatelliteDelegateMember(T* object, Method method) : object_(object), method_(method) {}

    int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) override {
        return (object_->*method_)(caller, in, out);
    }

private:
    T* object_ = nullptr;
    Method method_ = nullptr;
};

// Calls a plain function.
class KibSatelliteDelegateFunction : public KibSatelliteDelegateGeneric {
public:
    using Function = int (*)(const char*, const tagVARIANT&, tagVARIANT*);

    explicit KibSatelliteDelegateFunction(Function function) : function_(function) {}

    int Invoke(const char* caller, const tagVARIANT& in, tagVARIANT* out) override {
        return function_(caller, in, out);
    }

private:
    Function function_ = nullptr;
};
