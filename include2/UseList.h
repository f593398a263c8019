// A doubly linked list of (K, V) pairs in order of use, owned by value.
//
// Front: most recently added or found. Back: least recently used. Positions stay valid until their pair is erased.
// A pair may also be parked: out of the list, but where it was, for readers that still point at it.
// Not thread-safe: the cache's lock guards it.
#pragma once

#include "include2/NodeSlab.h"

#include <utility>

namespace Vellum {

template <class K, class V>
class UseList {
  public:
    using Pair = std::pair<K const, V>;
    using Position = std::uint32_t;
    static constexpr Position none = 0xFFFFFFFFU;

    UseList() = default;
    ~UseList() {
        clear();
        while (dropParked(~0U)) {
        }
    }
    UseList(UseList const&) = delete;
    UseList& operator=(UseList const&) = delete;

    // Copies key and value into a new front node. Throws what their copies throw, or std::bad_alloc; the list is then
    // unchanged.
    Position pushFront(K const& key, V const& value) {
        Position const position = m_slab.allocate();
        try {
            new (m_slab.room(position)) Node(key, value);
        } catch (...) {
            m_slab.release(position);
            throw;
        }
        linkFront(position);
        return position;
    }
    void moveToFront(Position position) {
        if (position != m_front) {
            unlink(position);
            linkFront(position);
        }
    }
    void erase(Position position) {
        unlink(position);
        m_slab.at(position).~Node();
        m_slab.release(position);
    }
    void clear() {
        destroyChain(m_front, ~0U);
        m_front = m_back = none;
        if (m_parked == none) {
            m_slab.clear();
        }
    }

    // As erase() and clear(), but the pairs stay in memory until dropParked(). Nothing is allocated.
    void park(Position position) {
        unlink(position);
        m_slab.at(position).next = std::exchange(m_parked, position);
    }
    void parkAll() {
        if (m_front != none) {
            m_slab.at(m_back).next = m_parked;
            m_parked = m_front;
            m_front = m_back = none;
        }
    }
    // Destroys up to `most` parked pairs; true while there are more.
    bool dropParked(unsigned int most) {
        m_parked = destroyChain(m_parked, most);
        return m_parked != none;
    }

    Pair& at(Position position) const { return m_slab.at(position).pair; }
    Position front() const { return m_front; }
    Position back() const { return m_back; }
    Position after(Position position) const { return m_slab.at(position).next; } // towards the back
    // Tells the processor that the pair will be read soon.
    void prefetch(Position position) const { __builtin_prefetch(m_slab.room(position)); }

  private:
    struct Node {
        Node(K const& key, V const& value) : pair(key, value) {}
        Position previous = none; // towards the front
        Position next = none;
        Pair pair;
    };

    void linkFront(Position position) {
        Node& node = m_slab.at(position);
        node.previous = none;
        node.next = m_front;
        (m_front == none ? m_back : m_slab.at(m_front).previous) = position;
        m_front = position;
    }
    void unlink(Position position) {
        Node const& node = m_slab.at(position);
        (node.previous == none ? m_front : m_slab.at(node.previous).next) = node.next;
        (node.next == none ? m_back : m_slab.at(node.next).previous) = node.previous;
    }

    // Destroys up to `most` nodes from `first` on; answers where the rest begins.
    Position destroyChain(Position first, unsigned int most) {
        for (; first != none && most > 0; --most) {
            Position const next = m_slab.at(first).next;
            m_slab.at(first).~Node();
            m_slab.release(first);
            first = next;
        }
        return first;
    }

    NodeSlab<Node> m_slab;
    Position m_front = none;
    Position m_back = none;
    Position m_parked = none; // chained by `next`
};

} // namespace Vellum
