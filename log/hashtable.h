// The log's hash table: separate chaining, integer keys, one owned value a key. Portable.
#pragma once

#include "sync/mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

/// Any thread may look up at any time without a lock; changes exclude each other. Entries stay until the table goes and
/// a full table gets a larger part beside the others, so a lookup never meets anything that is about to be freed.
template <class Value>
class CHashtable {
public:
    explicit CHashtable(uint32_t buckets = 151, float loadFactor = 0.75f) noexcept
        : m_buckets(buckets), m_loadFactor(loadFactor) {}
    CHashtable(const CHashtable&) = delete;
    CHashtable& operator=(const CHashtable&) = delete;
    ~CHashtable() {
        while (const std::unique_ptr<const Part> part{m_first.load()}) {
            m_first = part->next.load();
            for (uint32_t b = 0; b < part->count; ++b)
                while (const std::unique_ptr<const Entry> entry{part->heads[b].load()}) {
                    part->heads[b] = entry->next;
                    delete entry->value.load();
                }
        }
    }

    /// @return the key's value, or null. It may be taken out meanwhile: see exchange.
    Value* find(uint32_t key) const noexcept {
        const Entry* entry = findEntry(key);
        return entry ? entry->value.load(std::memory_order_acquire) : nullptr;
    }
    /// Puts `value`, which may be null, in the place of the key's, and leaves there what it replaced. Others may have
    /// looked that up and still use it.
    /// @return false if memory is short; nothing has changed then.
    bool exchange(uint32_t key, std::unique_ptr<Value>& value) noexcept {
        const kestra::LockGuard lock(m_mutex);
        Entry* entry = findOrAddEntry(key);
        if (entry) value.reset(entry->value.exchange(value.release(), std::memory_order_acq_rel));
        return entry != nullptr;
    }
    /// Adds unless the key has a value. @return the key's value from now on; null if memory is short.
    Value* findOrInsert(uint32_t key, std::unique_ptr<Value> value) noexcept {
        const kestra::LockGuard lock(m_mutex);
        Entry* entry = value ? findOrAddEntry(key) : nullptr;
        if (!entry) return nullptr;
        if (!entry->value.load()) entry->value.store(value.release(), std::memory_order_release);
        return entry->value.load();
    }
    /// Calls visit(key, value) for every key with a value.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const Part* part = m_first.load(std::memory_order_acquire); part;
             part = part->next.load(std::memory_order_acquire))
            for (uint32_t b = 0; b < part->count; ++b)
                for (const Entry* entry = part->heads[b].load(std::memory_order_acquire); entry; entry = entry->next)
                    if (Value* value = entry->value.load(std::memory_order_acquire)) visit(entry->key, *value);
    }
    uint32_t bucketCount() const noexcept {
        uint32_t count = 0;
        for (const Part* part = m_first.load(); part; part = part->next.load())
            count += part->count;
        return count;
    }

private:
    struct Entry {
        const uint32_t key;
        Entry* const next;
        std::atomic<Value*> value{nullptr};
    };
    struct Part {
        const uint32_t count;
        const std::unique_ptr<std::atomic<Entry*>[]> heads;
        std::atomic<Part*> next{nullptr};
        size_t entries = 0; // guarded by the table's mutex

        std::atomic<Entry*>& headOf(uint32_t key) const noexcept { return heads[(key & 0x7FFFFFFF) % count]; }
    };

    Entry* findEntry(uint32_t key) const noexcept {
        for (const Part* part = m_first.load(std::memory_order_acquire); part;
             part = part->next.load(std::memory_order_acquire))
            for (Entry* entry = part->headOf(key).load(std::memory_order_acquire); entry; entry = entry->next)
                if (entry->key == key) return entry;
        return nullptr;
    }
    Entry* findOrAddEntry(uint32_t key) noexcept REQUIRES(m_mutex) {
        if (Entry* entry = findEntry(key)) return entry;
        if (!m_last || static_cast<float>(m_last->entries + 1) > static_cast<float>(m_last->count) * m_loadFactor)
            addPart(); // a table that cannot grow goes on with longer chains
        if (!m_last) return nullptr;
        std::atomic<Entry*>& head = m_last->headOf(key);
        auto* entry = new (std::nothrow) Entry{key, head.load()};
        if (!entry) return nullptr;
        head.store(entry, std::memory_order_release);
        ++m_last->entries;
        return entry;
    }
    void addPart() noexcept REQUIRES(m_mutex) {
        const uint32_t count = m_last ? m_last->count * 2 + 1 : m_buckets;
        auto part = std::unique_ptr<Part>(new (std::nothrow) Part{
            count, std::unique_ptr<std::atomic<Entry*>[]>(new (std::nothrow) std::atomic<Entry*>[count] {})});
        if (!part || !part->heads) return;
        (m_last ? m_last->next : m_first).store(part.get(), std::memory_order_release);
        m_last = part.release();
    }

    const uint32_t m_buckets; // of the first part
    const float m_loadFactor;
    kestra::Mutex m_mutex;
    std::atomic<Part*> m_first{nullptr};
    Part* m_last GUARDED_BY(m_mutex) = nullptr;
};
