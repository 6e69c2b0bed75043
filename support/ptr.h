// Reference-counted ownership used throughout the engine.
//
// `Ptr<T>` owns a share of an object whose count lives in the object itself
// (it derives from `RefCounted`); the last release deletes it. `PtrView<T>`
// is a non-owning view handed to callees that do not keep the object.
// `Alias<T>` is a named, non-owning link to an `AliasTarget` that is resolved
// by name and may be re-bound (operator to context, key to descriptor).
//
// Counts are atomic, so an object may be shared between threads; the count is
// also how an evaluator tells whether a caller still holds an output tuple.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>

namespace vx {

class RefCounted {
 public:
  RefCounted() = default;
  // A copy is a new object: it starts unowned.
  RefCounted(const RefCounted&) : m_refs(0) {}
  RefCounted& operator=(const RefCounted&) { return *this; }
  virtual ~RefCounted() = default;

  void AddRef() const { m_refs.fetch_add(1, std::memory_order_relaxed); }
  void Release() const {
    if (m_refs.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

 protected:
  // The count changed without a locked instruction, for classes whose
  // objects are owned by one thread at a time (a class hides AddRef and
  // Release with these). Handing such an object to another thread needs the
  // synchronisation that hands over the rest of its state anyway.
  void AddRefOwnedByOneThread() const {
    m_refs.store(m_refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  }
  void ReleaseOwnedByOneThread() const {
    const uint32_t left = m_refs.load(std::memory_order_relaxed) - 1;
    m_refs.store(left, std::memory_order_relaxed);
    if (left == 0) delete this;
  }

 public:
  // Number of `Ptr` holders. Exact only while no other thread changes it.
  uint32_t GetRefCount() const { return m_refs.load(std::memory_order_acquire); }

 private:
  mutable std::atomic<uint32_t> m_refs{0};
};

template <class T>
class PtrView;

template <class T>
class Ptr {
 public:
  Ptr() = default;
  Ptr(std::nullptr_t) {}
  explicit Ptr(T* p) : m_p(p) { Acquire(); }
  Ptr(const Ptr& o) : m_p(o.m_p) { Acquire(); }
  Ptr(Ptr&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
  template <class U>
  Ptr(const Ptr<U>& o) : m_p(o.Get()) { Acquire(); }
  template <class U>
  explicit Ptr(PtrView<U> v) : m_p(v.Get()) { Acquire(); }
  ~Ptr() { Drop(); }

  Ptr& operator=(const Ptr& o) {
    if (o.m_p) o.m_p->AddRef();
    Drop();
    m_p = o.m_p;
    return *this;
  }
  Ptr& operator=(Ptr&& o) noexcept {
    if (this != &o) {
      Drop();
      m_p = std::exchange(o.m_p, nullptr);
    }
    return *this;
  }
  Ptr& operator=(std::nullptr_t) {
    Drop();
    m_p = nullptr;
    return *this;
  }

  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T& operator*() const { return *m_p; }
  explicit operator bool() const { return m_p != nullptr; }
  bool operator==(const Ptr& o) const { return m_p == o.m_p; }
  bool operator==(std::nullptr_t) const { return m_p == nullptr; }
  // True when this is the only owner.
  bool IsUnique() const { return m_p && m_p->GetRefCount() == 1; }

 private:
  void Acquire() {
    if (m_p) m_p->AddRef();
  }
  void Drop() {
    if (m_p) m_p->Release();
  }
  T* m_p = nullptr;
};

template <class T, class... Args>
Ptr<T> MakePtr(Args&&... args) {
  return Ptr<T>(new T(std::forward<Args>(args)...));
}

template <class T>
class PtrView {
 public:
  PtrView() = default;
  PtrView(std::nullptr_t) {}
  PtrView(T* p) : m_p(p) {}
  template <class U>
  PtrView(const Ptr<U>& p) : m_p(p.Get()) {}
  template <class U>
  PtrView(PtrView<U> p) : m_p(p.Get()) {}

  T* Get() const { return m_p; }
  T* operator->() const { return m_p; }
  T& operator*() const { return *m_p; }
  explicit operator bool() const { return m_p != nullptr; }
  bool operator==(const PtrView& o) const { return m_p == o.m_p; }

 private:
  T* m_p = nullptr;
};

// An object that an `Alias` may name.
class AliasTarget {
 public:
  virtual ~AliasTarget() = default;
  virtual const std::string& GetAliasName() const = 0;
};

template <class T>
class Alias {
 public:
  Alias() = default;
  explicit Alias(T* target) { Bind(target); }
  explicit Alias(std::string name) : m_name(std::move(name)) {}

  void Bind(T* target) {
    m_target = target;
    if (target) m_name = target->GetAliasName();
  }
  void SetName(std::string name) {
    m_name = std::move(name);
    m_target = nullptr;
  }
  const std::string& GetName() const { return m_name; }
  T* Get() const { return m_target; }
  T* operator->() const { return m_target; }
  bool IsBound() const { return m_target != nullptr; }

 private:
  std::string m_name;
  T* m_target = nullptr;
};

}  // namespace vx
