// The log's hash table: separate chaining, integer keys, one pointer a key. Any thread may look up at any time
// without a lock; changes exclude each other. Portable.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

/// Values are borrowed. What a lookup may still be walking over is kept until the table goes.
class CHashtable {
public:
    explicit CHashtable(uint32_t buckets = 151, float loadFactor = 0.75f);
    ~CHashtable();
    CHashtable(const CHashtable&) = delete;
    CHashtable& operator=(const CHashtable&) = delete;

    /// @return the key's value, or null.
    void* find(uint32_t key) const noexcept;
    /// Adds or replaces. @return false if memory is short; the table is then as it was.
    bool insert(uint32_t key, void* value) noexcept;
    /// Adds unless the key is there. @return the key's value from now on; null if memory is short.
    void* findOrInsert(uint32_t key, void* value) noexcept;
    /// @return the value that was removed, or null.
    void* remove(uint32_t key) noexcept;
    size_t size() const noexcept { return m_size.load(std::memory_order_relaxed); }
    uint32_t bucketCount() const noexcept;

    /// Calls visit(key, value) for every entry; excludes changes meanwhile.
    template <class Visit>
    void forEach(Visit visit) const {
        const std::lock_guard lock(m_mutex);
        const Buckets* buckets = m_buckets.load(std::memory_order_acquire);
        if (!buckets) return;
        for (uint32_t b = 0; b < buckets->count; ++b)
            for (const Node* node = buckets->heads[b].load(std::memory_order_acquire); node;
                 node = node->next.load(std::memory_order_acquire))
                visit(node->key, node->value.load(std::memory_order_acquire));
    }

private:
    struct Node {
        uint32_t key;
        std::atomic<void*> value;
        std::atomic<Node*> next;
        Node* retired;
    };
    struct Buckets {
        uint32_t count;
        std::atomic<Node*>* heads;
        Buckets* retired;
    };

    static Buckets* makeBuckets(uint32_t count) noexcept;
    static uint32_t bucketOf(uint32_t key, uint32_t count) noexcept { return (key & 0x7FFFFFFF) % count; }
    Node* findNode(uint32_t key) const noexcept;
    Node* findOrAddNode(uint32_t key, void* value) noexcept;
    bool grow() noexcept;
    void retire(Node* node) noexcept;

    mutable std::mutex m_mutex;
    std::atomic<Buckets*> m_buckets;
    std::atomic<size_t> m_size{0};
    float m_loadFactor;
    Node* m_retiredNodes = nullptr;
    Buckets* m_retiredBuckets = nullptr;
};
