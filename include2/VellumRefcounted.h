// Reference-counted handles: RefImpl (the counted object), RefCounted<T> (the holder), Ref<T> (the handle).
//
// Every Ref owns a holder of its own; what handles share is only the count inside the object. An object is born with
// a count of 1, the reference of its creator, which is normally handed to a Ref at once:
//
//   Ref<Rule> rule(new Rule(...));   // adopts that reference
//   Ref<Rule> copy = rule;           // a new holder, count 2
//
// Threads: counts change atomically and the thread that drops the last reference deletes the object. One handle object
// must not be written by one thread while another uses it; different handles on one object are independent.
#pragma once

#include "foundation/Exception.h"

#include <atomic>
#include <cstdint>
#include <utility>

namespace Vellum {

// Base of every object that a Ref may point at. May be a virtual base.
class RefImpl {
  public:
    RefImpl() = default;
    virtual ~RefImpl() = default;
    RefImpl(RefImpl const&) = delete;
    RefImpl& operator=(RefImpl const&) = delete;

    void addReference() const { m_count.fetch_add(1, std::memory_order_seq_cst); }
    // True for the caller that dropped the last reference, who deletes the object.
    bool dropReference() const { return m_count.fetch_sub(1, std::memory_order_seq_cst) == 1; }
    // References now; only a snapshot.
    std::uint32_t references() const { return m_count.load(std::memory_order_relaxed); }

  private:
    mutable std::atomic<std::uint32_t> m_count{1};
};

// Holds one reference on `impl` (null allowed) for its life.
template <class T>
class RefCounted {
  public:
    // Adopts the caller's reference, or with addRef takes one of its own.
    // Throws Exception (code 4) when a reference is to be taken on nothing.
    RefCounted(T* impl, bool addRef) : m_impl(impl) {
        if (addRef) {
            if (impl == nullptr) {
                throw Exception("RefCounted constructor for RefImpl failed.", Exception::failure);
            }
            asCounted()->addReference();
        }
    }
    virtual ~RefCounted() {
        if (m_impl != nullptr && asCounted()->dropReference()) {
            delete asCounted();
        }
    }
    RefCounted(RefCounted const&) = delete;
    RefCounted& operator=(RefCounted const&) = delete;

    bool operator==(RefCounted const& other) const { return m_impl == other.m_impl; }
    T* impl() const { return m_impl; }

  private:
    // T may inherit RefImpl directly or virtually, once; the conversion finds it either way.
    RefImpl const* asCounted() const { return m_impl; }

    T* m_impl;
};

// Makes `target` hold what `source` holds. The same holder stays as it is; a holder of null is copied as a holder of
// null. Throws std::bad_alloc, with `target` then holding nothing.
template <class T>
void RefCountedImplCopy(RefCounted<T>*& target, RefCounted<T> const* source) {
    if (target == source) {
        return;
    }
    delete target;
    target = nullptr;
    if (source != nullptr) {
        target = new RefCounted<T>(source->impl(), source->impl() != nullptr);
    }
}

// The handle. Empty when default-made or made from null.
template <class T>
class Ref {
  public:
    Ref() = default;
    // Adopts the creator's reference.
    explicit Ref(T* impl) : m_holder(impl == nullptr ? nullptr : adopt(impl)) {}
    Ref(Ref const& other) { RefCountedImplCopy<T>(m_holder, other.m_holder); }
    Ref(Ref&& other) noexcept : m_holder(std::exchange(other.m_holder, nullptr)) {}
    Ref& operator=(Ref const& other) { // NOLINT(bugprone-unhandled-self-assignment): the copy sees to it
        RefCountedImplCopy<T>(m_holder, other.m_holder);
        return *this;
    }
    Ref& operator=(Ref&& other) noexcept {
        std::swap(m_holder, other.m_holder);
        return *this;
    }
    virtual ~Ref() { delete m_holder; }

    // The object, or null from a holder of null. Throws Exception (code 1) on a handle without a holder.
    T* operator->() const {
        if (m_holder == nullptr) {
            throw Exception("operator->", Exception::emptyHandle, "include2/VellumRefcounted", emptyHandleLine);
        }
        return m_holder->impl();
    }
    T& operator*() const { return *operator->(); }
    // The object or null; never throws.
    T* get() const { return m_holder == nullptr ? nullptr : m_holder->impl(); }
    bool isNull() const { return get() == nullptr; }
    explicit operator bool() const { return !isNull(); }

    // Promised to log readers.
    static constexpr unsigned int emptyHandleLine = 359;

  protected:
    // A holder of null, as opposed to no holder; only copies of it can be made.
    struct HolderOfNull {};
    explicit Ref(HolderOfNull) : m_holder(new RefCounted<T>(nullptr, false)) {}

  private:
    // Takes over the reference even when no holder can be made: then it is dropped, not leaked.
    static RefCounted<T>* adopt(T* impl) {
        try {
            return new RefCounted<T>(impl, false);
        } catch (...) {
            RefCounted<T> const dropped(impl, false);
            throw;
        }
    }

    RefCounted<T>* m_holder = nullptr;
};

} // namespace Vellum
