#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace quorvan {

// Intrusive reference counting. Interfaces used by reference derive
// virtually from IRefCount; their implementations add IRefCountImpl, so one
// counter serves every interface of an object.
class IRefCount
{
public:
    virtual int64_t AddRef() = 0;
    // Adds one unless the count is 0; at 0 returns 0 and changes nothing.
    virtual int64_t AddRefIfAlive() = 0;
    // Subtracts one; at 0 the object deletes itself.
    virtual int64_t Release() = 0;
    // Subtracts one and never deletes.
    virtual int64_t DropRef() = 0;
    // Deletes the object at once, whatever the count.
    virtual void Destroy() = 0;
    virtual int64_t GetRefCount() const = 0;

protected:
    virtual ~IRefCount() = default;
};

// Any thread may count; a new object starts at 1, owned by its creator.
class IRefCountImpl : public virtual IRefCount
{
public:
    int64_t AddRef() override { return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1; }

    int64_t AddRefIfAlive() override
    {
        int64_t current = m_refCount.load(std::memory_order_relaxed);
        while (current != 0) {
            if (m_refCount.compare_exchange_weak(current, current + 1, std::memory_order_acq_rel,
                                                 std::memory_order_relaxed)) {
                return current + 1;
            }
        }
        return 0;
    }

    int64_t Release() override
    {
        const int64_t count = m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (count == 0) {
            delete this;
        }
        return count;
    }

    int64_t DropRef() override { return m_refCount.fetch_sub(1, std::memory_order_acq_rel) - 1; }

    void Destroy() override { delete this; }

    int64_t GetRefCount() const override { return m_refCount.load(std::memory_order_acquire); }

protected:
    IRefCountImpl() = default;
    ~IRefCountImpl() override = default;

private:
    std::atomic<int64_t> m_refCount{1};
};

// Owns one reference to a T. A raw pointer handed over (from a Create...(T**)
// factory or GetLoggerInstance) is taken over without a new reference. One
// pointer object belongs to one thread at a time.
template <typename T> class CRefCountPtr
{
public:
    CRefCountPtr() = default;
    // Takes over the caller's reference.
    explicit CRefCountPtr(T* adopted) : m_ptr(adopted) {}
    CRefCountPtr(const CRefCountPtr& other) : m_ptr(other.m_ptr)
    {
        if (m_ptr) {
            m_ptr->AddRef();
        }
    }
    CRefCountPtr(CRefCountPtr&& other) noexcept : m_ptr(std::exchange(other.m_ptr, nullptr)) {}
    ~CRefCountPtr() { Reset(); }

    // operator& is ours, so identity is tested with std::addressof.
    CRefCountPtr& operator=(const CRefCountPtr& other)
    {
        if (this != std::addressof(other)) {
            T* incoming = other.m_ptr;
            if (incoming) {
                incoming->AddRef();
            }
            Reset();
            m_ptr = incoming;
        }
        return *this;
    }
    CRefCountPtr& operator=(CRefCountPtr&& other) noexcept
    {
        if (this != std::addressof(other)) {
            Reset();
            m_ptr = std::exchange(other.m_ptr, nullptr);
        }
        return *this;
    }

    // Releases what is held and clears the pointer.
    void Reset()
    {
        if (T* old = std::exchange(m_ptr, nullptr)) {
            old->Release();
        }
    }

    // Out-parameter for a Create...(T**) factory: releases what is held,
    // then lets the factory write a pointer whose reference we take over.
    T** operator&()
    {
        Reset();
        return &m_ptr;
    }

    T* Get() const { return m_ptr; }
    T* operator->() const { return m_ptr; }
    T& operator*() const { return *m_ptr; }
    explicit operator bool() const { return m_ptr != nullptr; }
    bool operator==(const CRefCountPtr& other) const { return m_ptr == other.m_ptr; }
    bool operator!=(const CRefCountPtr& other) const { return m_ptr != other.m_ptr; }

    // Gives up ownership without releasing.
    T* Detach() { return std::exchange(m_ptr, nullptr); }

private:
    T* m_ptr = nullptr;
};

} // namespace quorvan
