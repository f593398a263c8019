// The memory of one tree's nodes, in chunks of its own.
//
// Nodes that come from the process's allocator one by one, and go back by the ten thousand when a cache is cleared,
// leave it a heap of pieces to sort, and the next one who wants memory, a decision, has to wait for that. So chunks are
// kept until the pool's end: a cache that is cleared is filled again, as a rule.
// Not thread-safe: the cache's lock guards it.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace Vellum {

template <class Node>
class NodePool {
  public:
    static_assert(std::is_trivially_destructible_v<Node>, "forgetAll() destroys none");

    // Gives a node back to its pool.
    struct Release {
        NodePool* pool = nullptr;
        void operator()(Node* node) const { pool->release(node); }
    };
    using Handle = std::unique_ptr<Node, Release>;

    NodePool() = default;
    NodePool(NodePool const&) = delete;
    NodePool& operator=(NodePool const&) = delete;

    // A new node, which is given back when the handle is not released. Throws std::bad_alloc and is then unchanged.
    Handle make() {
        Block* const block = m_free != nullptr ? std::exchange(m_free, m_free->nextFree) : untouched();
        return Handle(new (block->bytes) Node, Release{this});
    }
    void release(Node* node) {
        auto* const block = reinterpret_cast<Block*>(node);
        block->nextFree = m_free;
        m_free = block;
    }
    // All nodes are gone, at once; their room is kept.
    void forgetAll() {
        m_touched = 0;
        m_free = nullptr;
    }

  private:
    static constexpr std::size_t chunkSize = 64;

    union Block {
        Block() {} // memory only: neither zeroed nor touched before its time
        Block* nextFree;
        alignas(Node) std::byte bytes[sizeof(Node)];
    };
    struct Chunk {
        Block blocks[chunkSize];
    };

    Block* untouched() {
        if (m_touched == m_chunks.size() * chunkSize) {
            m_chunks.push_back(std::unique_ptr<Chunk>(new Chunk));
        }
        std::size_t const next = m_touched++;
        return &m_chunks[next / chunkSize]->blocks[next % chunkSize];
    }

    std::vector<std::unique_ptr<Chunk>> m_chunks;
    std::size_t m_touched = 0; // blocks that have been nodes since the last forgetAll()
    Block* m_free = nullptr;   // those of them that are none now; each names the next
};

} // namespace Vellum
