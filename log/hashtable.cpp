// Readers follow atomic links only. A removed node and an outgrown bucket array keep their links until the table
// is destroyed, so that a reader that stands on one always finds its way out.
#include "log/hashtable.h"

#include <new>

CHashtable::CHashtable(uint32_t buckets, float loadFactor)
    : m_buckets(makeBuckets(buckets ? buckets : 1)), m_loadFactor(loadFactor) {}

CHashtable::~CHashtable() {
    if (Buckets* buckets = m_buckets.load()) {
        for (uint32_t b = 0; b < buckets->count; ++b)
            for (Node* node = buckets->heads[b].load(); node;) {
                Node* next = node->next.load();
                delete node;
                node = next;
            }
        buckets->retired = m_retiredBuckets;
        m_retiredBuckets = buckets;
    }
    while (Node* node = m_retiredNodes) {
        m_retiredNodes = node->retired;
        delete node;
    }
    while (Buckets* buckets = m_retiredBuckets) {
        m_retiredBuckets = buckets->retired;
        delete[] buckets->heads;
        delete buckets;
    }
}

CHashtable::Buckets* CHashtable::makeBuckets(uint32_t count) noexcept {
    auto* buckets = new (std::nothrow) Buckets{count, new (std::nothrow) std::atomic<Node*>[count] {}, nullptr};
    if (buckets && !buckets->heads) {
        delete buckets;
        return nullptr;
    }
    return buckets;
}

uint32_t CHashtable::bucketCount() const noexcept {
    const Buckets* buckets = m_buckets.load(std::memory_order_acquire);
    return buckets ? buckets->count : 0;
}

CHashtable::Node* CHashtable::findNode(uint32_t key) const noexcept {
    const Buckets* buckets = m_buckets.load(std::memory_order_acquire);
    if (!buckets) return nullptr;
    Node* node = buckets->heads[bucketOf(key, buckets->count)].load(std::memory_order_acquire);
    while (node && node->key != key)
        node = node->next.load(std::memory_order_acquire);
    return node;
}

void* CHashtable::find(uint32_t key) const noexcept {
    const Node* node = findNode(key);
    return node ? node->value.load(std::memory_order_acquire) : nullptr;
}

void CHashtable::retire(Node* node) noexcept {
    node->retired = m_retiredNodes;
    m_retiredNodes = node;
}

/// Copies every node into a larger array; readers go on in the old one until the new one is published.
bool CHashtable::grow() noexcept {
    Buckets* old = m_buckets.load();
    Buckets* larger = makeBuckets(old->count * 2 + 1);
    if (!larger) return false;
    bool complete = true;
    for (uint32_t b = 0; b < old->count && complete; ++b)
        for (Node* node = old->heads[b].load(); node && complete; node = node->next.load()) {
            auto& head = larger->heads[bucketOf(node->key, larger->count)];
            auto* copy = new (std::nothrow) Node{node->key, node->value.load(), head.load(), nullptr};
            if (copy)
                head.store(copy);
            else
                complete = false;
        }
    Buckets* gone = complete ? old : larger;
    if (complete) m_buckets.store(larger, std::memory_order_release);
    for (uint32_t b = 0; b < gone->count; ++b)
        for (Node* node = gone->heads[b].load(); node; node = node->next.load())
            retire(node);
    gone->retired = m_retiredBuckets;
    m_retiredBuckets = gone;
    return complete;
}

/// Under the mutex.
CHashtable::Node* CHashtable::findOrAddNode(uint32_t key, void* value) noexcept {
    if (!m_buckets.load()) {
        m_buckets.store(makeBuckets(151), std::memory_order_release);
        if (!m_buckets.load()) return nullptr;
    }
    if (Node* node = findNode(key)) return node;
    // A table that cannot grow goes on with longer chains.
    if (static_cast<float>(m_size + 1) > static_cast<float>(m_buckets.load()->count) * m_loadFactor) (void)grow();
    const Buckets* buckets = m_buckets.load();
    auto& head = buckets->heads[bucketOf(key, buckets->count)];
    auto* node = new (std::nothrow) Node{key, value, head.load(), nullptr};
    if (!node) return nullptr;
    head.store(node, std::memory_order_release);
    ++m_size;
    return node;
}

bool CHashtable::insert(uint32_t key, void* value) noexcept {
    const std::lock_guard lock(m_mutex);
    Node* node = findOrAddNode(key, value);
    if (node) node->value.store(value, std::memory_order_release);
    return node != nullptr;
}

void* CHashtable::findOrInsert(uint32_t key, void* value) noexcept {
    const std::lock_guard lock(m_mutex);
    const Node* node = findOrAddNode(key, value);
    return node ? node->value.load() : nullptr;
}

void* CHashtable::remove(uint32_t key) noexcept {
    const std::lock_guard lock(m_mutex);
    const Buckets* buckets = m_buckets.load();
    if (!buckets) return nullptr;
    std::atomic<Node*>* link = &buckets->heads[bucketOf(key, buckets->count)];
    for (Node* node = link->load(); node; link = &node->next, node = link->load()) {
        if (node->key != key) continue;
        void* value = node->value.load();
        link->store(node->next.load(), std::memory_order_release);
        retire(node);
        --m_size;
        return value;
    }
    return nullptr;
}
