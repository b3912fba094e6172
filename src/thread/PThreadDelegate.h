// SPDX-License-Identifier: MIT
// The delegate family that PThread runs: a member function of some object or a free
// function, both taking and returning void*. PThread keeps its own clone() of the
// delegate it is given, so the caller's delegate may be a temporary.
#pragma once

class PThreadDelegateGeneric {
public:
    PThreadDelegateGeneric() = default;
    PThreadDelegateGeneric(const PThreadDelegateGeneric&) = default;
    PThreadDelegateGeneric& operator=(const PThreadDelegateGeneric&) = default;
    virtual ~PThreadDelegateGeneric() = default;

    // Runs the target with `arg`; returns what the target returns.
    virtual void* Invoke(void* arg) = 0;
    // A new heap copy of this delegate, owned by the caller.
    virtual PThreadDelegateGeneric* clone() const = 0;
};

// Calls `(object->*method)(arg)`. The object is borrowed and must outlive the thread.
// The full member-function pointer is kept, so virtual members dispatch as usual.
template <class T>
class PThreadDelegateMember : public PThreadDelegateGeneric {
public:
    using Method = void* (T::*)(void*);

    PThreadDelegateMember(T* object, Method method) : object_(object), method_(method) {}

    void* Invoke(void* arg) override { return (object_->*method_)(arg); }
    PThreadDelegateGeneric* clone() const override {
        return new PThreadDelegateMember<T>(object_, method_);
    }

private:
    T* object_ = nullptr;
    Method method_ = nullptr;
};

// Calls a free function.
class PThreadDelegateFunction : public PThreadDelegateGeneric {
public:
    using Function = void* (*)(void*);

    explicit PThreadDelegateFunction(Function function) : function_(function) {}

    void* Invoke(void* arg) override { return function_(arg); }
    PThreadDelegateGeneric* clone() const override {
        return new PThreadDelegateFunction(function_);
    }

private:
    Function function_ = nullptr;
};
