// Bound calls: CallbackBase, the CallbackN and MethodNCallback families, and Function.
#ifndef TARN_OXUTILS_CALLBACK_H_
#define TARN_OXUTILS_CALLBACK_H_

#include <utility>

#include "oxutils/assert.h"
#include "oxutils/smart_ptr/shared_ptr.h"

namespace oxutils {

// A call with up to three arguments, stored or given. Arguments travel by value. Immutable once
// built, so it may be shared between threads; what it calls has to bear the thread that runs it.
//
// The virtual operations keep one slot order in the whole family: destructor, run() with all
// arguments stored, run(a1..aN) with all given, then the forms that take the leading arguments from
// storage and the rest from the caller.
class CallbackBase {
 public:
  virtual ~CallbackBase() = default;
  CallbackBase(const CallbackBase&) = delete;
  CallbackBase& operator=(const CallbackBase&) = delete;

  // Calls the target with the arguments stored at construction.
  virtual void run() = 0;

  // The object that a Method0Callback is bound to, null for the other classes.
  const void* object() const { return object_; }

  // Calls the target with all arguments given. Requires: A... are exactly the target's types.
  template <typename A1, typename... A>
  void run(A1 a1, A... a);
  // The same, taking the arguments from where they stand.
  template <typename... A>
  void run_taking(A&... a);

 protected:
  // `signature` tells callbacks of different argument types apart.
  explicit CallbackBase(const void* signature, const void* object = nullptr)
      : signature_(signature), object_(object) {}

  template <typename... A>
  static const void* signature_of() {
    static const char tag = 0;
    return &tag;
  }

 private:
  const void* const signature_;
  const void* const object_;
};

// A plain function without arguments. A null function does nothing.
class Callback0 : public CallbackBase {
 public:
  explicit Callback0(void (*fn)() = nullptr) : CallbackBase(signature_of<>()), fn_(fn) {}

  void run() override {
    if (fn_ != nullptr) fn_();
  }

 private:
  void (*const fn_)();
};

// A plain function of one argument; the stored value is default-constructed unless bound.
template <typename A1>
class Callback1 : public CallbackBase {
 public:
  explicit Callback1(void (*fn)(A1), A1 a1 = A1())
      : CallbackBase(signature_of<A1>()), fn_(fn), a1_(std::move(a1)) {}

  void run() override { this->run(a1_); }
  virtual void run(A1 a1) { fn_(std::move(a1)); }

 private:
  void (*const fn_)(A1);
  const A1 a1_;
};

template <typename A1, typename A2>
class Callback2 : public CallbackBase {
 public:
  explicit Callback2(void (*fn)(A1, A2), A1 a1 = A1(), A2 a2 = A2())
      : CallbackBase(signature_of<A1, A2>()), fn_(fn), a1_(std::move(a1)), a2_(std::move(a2)) {}

  void run() override { this->run(a1_, a2_); }
  virtual void run(A1 a1, A2 a2) { fn_(std::move(a1), std::move(a2)); }
  virtual void run(A2 a2) { this->run(a1_, std::move(a2)); }

 private:
  void (*const fn_)(A1, A2);
  const A1 a1_;
  const A2 a2_;
};

template <typename A1, typename A2, typename A3>
class Callback3 : public CallbackBase {
 public:
  explicit Callback3(void (*fn)(A1, A2, A3), A1 a1 = A1(), A2 a2 = A2(), A3 a3 = A3())
      : CallbackBase(signature_of<A1, A2, A3>()),
        fn_(fn),
        a1_(std::move(a1)),
        a2_(std::move(a2)),
        a3_(std::move(a3)) {}

  void run() override { this->run(a1_, a2_, a3_); }
  virtual void run(A1 a1, A2 a2, A3 a3) { fn_(std::move(a1), std::move(a2), std::move(a3)); }
  virtual void run(A2 a2, A3 a3) { this->run(a1_, std::move(a2), std::move(a3)); }
  virtual void run(A3 a3) { this->run(a1_, a2_, std::move(a3)); }

 private:
  void (*const fn_)(A1, A2, A3);
  const A1 a1_;
  const A2 a2_;
  const A3 a3_;
};

// A member function of `obj`, which the callback does not own; virtual members are honoured. Every
// run form of the base ends in the overridden one with all arguments.
template <typename T>
class Method0Callback : public CallbackBase {
 public:
  Method0Callback(T* obj, void (T::*method)())
      : CallbackBase(signature_of<>(), obj), obj_(obj), method_(method) {}

  void run() override { (obj_->*method_)(); }

 private:
  T* const obj_;
  void (T::*const method_)();
};

template <typename T, typename A1>
class Method1Callback : public Callback1<A1> {
 public:
  Method1Callback(T* obj, void (T::*method)(A1), A1 a1 = A1())
      : Callback1<A1>(nullptr, std::move(a1)), obj_(obj), method_(method) {}

  using Callback1<A1>::run;
  void run(A1 a1) override { (obj_->*method_)(std::move(a1)); }

 private:
  T* const obj_;
  void (T::*const method_)(A1);
};

template <typename T, typename A1, typename A2>
class Method2Callback : public Callback2<A1, A2> {
 public:
  Method2Callback(T* obj, void (T::*method)(A1, A2), A1 a1 = A1(), A2 a2 = A2())
      : Callback2<A1, A2>(nullptr, std::move(a1), std::move(a2)), obj_(obj), method_(method) {}

  using Callback2<A1, A2>::run;
  void run(A1 a1, A2 a2) override { (obj_->*method_)(std::move(a1), std::move(a2)); }

 private:
  T* const obj_;
  void (T::*const method_)(A1, A2);
};

template <typename T, typename A1, typename A2, typename A3>
class Method3Callback : public Callback3<A1, A2, A3> {
 public:
  Method3Callback(T* obj, void (T::*method)(A1, A2, A3), A1 a1 = A1(), A2 a2 = A2(), A3 a3 = A3())
      : Callback3<A1, A2, A3>(nullptr, std::move(a1), std::move(a2), std::move(a3)),
        obj_(obj),
        method_(method) {}

  using Callback3<A1, A2, A3>::run;
  void run(A1 a1, A2 a2, A3 a3) override {
    (obj_->*method_)(std::move(a1), std::move(a2), std::move(a3));
  }

 private:
  T* const obj_;
  void (T::*const method_)(A1, A2, A3);
};

namespace internal {

// The callback class for a target of the given argument types.
template <typename... A>
struct CallbackOf;
template <>
struct CallbackOf<> {
  using Plain = Callback0;
  template <typename T>
  using Method = Method0Callback<T>;
};
template <typename A1>
struct CallbackOf<A1> {
  using Plain = Callback1<A1>;
  template <typename T>
  using Method = Method1Callback<T, A1>;
};
template <typename A1, typename A2>
struct CallbackOf<A1, A2> {
  using Plain = Callback2<A1, A2>;
  template <typename T>
  using Method = Method2Callback<T, A1, A2>;
};
template <typename A1, typename A2, typename A3>
struct CallbackOf<A1, A2, A3> {
  using Plain = Callback3<A1, A2, A3>;
  template <typename T>
  using Method = Method3Callback<T, A1, A2, A3>;
};

}  // namespace internal

template <typename A1, typename... A>
void CallbackBase::run(A1 a1, A... a) {
  run_taking<A1, A...>(a1, a...);
}

template <typename... A>
void CallbackBase::run_taking(A&... a) {
  const void* const given = signature_of<A...>();
  OX_ASSERT("oxutils/callback", __LINE__, signature_ == given);
  using Target = typename internal::CallbackOf<A...>::Plain;
  static_cast<Target*>(this)->run(std::move(a)...);
}

// A call to hand over: copies share one callback object, which lives as long as any of them and may
// be run on any thread. One Function object is used by one thread at a time.
class Function {
 public:
  Function() = default;

  // A plain function, with its leading arguments bound or not.
  template <typename... A, typename... B>
  Function(void (*fn)(A...), B... bound)  // NOLINT(google-explicit-constructor)
      : callback_(new typename internal::CallbackOf<A...>::Plain(fn, std::move(bound)...)) {}

  // A member function of `obj`, which must outlive every run.
  template <typename T, typename C, typename... A, typename... B>
  Function(T* obj, void (C::*method)(A...), B... bound)
      : callback_(new typename internal::CallbackOf<A...>::template Method<C>(
            obj, method, std::move(bound)...)) {}

  // Runs with the bound arguments. Requires: set.
  void operator()() const {
    OX_ASSERT("oxutils/callback", 469, callback_);
    callback_->run();
  }

  // Run with all arguments given. Requires: set, and exactly the target's argument types: a literal
  // for an unsigned short is written as such.
  template <typename A1>
  void operator()(A1 a1) const {
    OX_ASSERT("oxutils/callback", 476, callback_);
    callback_->run_taking<A1>(a1);
  }
  template <typename A1, typename A2>
  void operator()(A1 a1, A2 a2) const {
    OX_ASSERT("oxutils/callback", 483, callback_);
    callback_->run_taking<A1, A2>(a1, a2);
  }
  template <typename A1, typename A2, typename A3>
  void operator()(A1 a1, A2 a2, A3 a3) const {
    OX_ASSERT("oxutils/callback", 490, callback_);
    callback_->run_taking<A1, A2, A3>(a1, a2, a3);
  }

  // Whether there is a callback to run.
  explicit operator bool() const { return static_cast<bool>(callback_); }

  CallbackBase* get() const { return callback_.get(); }

 private:
  shared_ptr<CallbackBase> callback_;
};

}  // namespace oxutils

#endif  // TARN_OXUTILS_CALLBACK_H_
