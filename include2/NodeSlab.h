// Fixed-size blocks with 32-bit addresses, for the nodes of a cache.
//
// A million tuples are a million nodes: without a header for each allocation and with links of four bytes, a node of
// the tuple cache is 64 bytes, one cache line. Blocks come in chunks that are never moved or given back before
// clear(), so a node's address holds for the node's life.
// Not thread-safe: the cache's lock guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace Vellum {

template <class Node>
class NodeSlab {
  public:
    using Position = std::uint32_t;
    static constexpr Position none = 0xFFFFFFFFU;

    NodeSlab() = default;
    NodeSlab(NodeSlab const&) = delete;
    NodeSlab& operator=(NodeSlab const&) = delete;

    // Room for one node, not constructed. Throws std::bad_alloc and is then unchanged.
    Position allocate() {
        if (m_free == none) {
            grow();
        }
        Position const position = m_free;
        m_free = block(position).nextFree;
        return position;
    }
    // Gives back room whose node is destroyed already.
    void release(Position position) {
        block(position).nextFree = m_free;
        m_free = position;
    }
    // Gives back everything; all nodes are destroyed already.
    void clear() {
        m_chunks.clear();
        m_free = none;
    }

    void* room(Position position) const { return block(position).bytes; }
    Node& at(Position position) const { return *std::launder(reinterpret_cast<Node*>(block(position).bytes)); }

  private:
    static constexpr unsigned int chunkBits = 8;
    static constexpr Position chunkSize = 1U << chunkBits;

    union Block {
        Block() {} // memory only: neither zeroed nor touched before its time
        Position nextFree;
        alignas(Node) std::byte bytes[sizeof(Node)];
    };
    struct alignas(64) Chunk { // a node of 64 bytes lies in one cache line
        Block blocks[chunkSize];
    };

    Block& block(Position position) const {
        return m_chunks[position >> chunkBits]->blocks[position & (chunkSize - 1)];
    }

    void grow() {
        auto const first = static_cast<Position>(m_chunks.size() << chunkBits);
        m_chunks.push_back(std::unique_ptr<Chunk>(new Chunk));
        for (Position i = chunkSize; i-- > 0;) {
            release(first + i);
        }
    }

    std::vector<std::unique_ptr<Chunk>> m_chunks;
    Position m_free = none; // first free block; each free block names the next
};

} // namespace Vellum
