// An ordered map from keys to list positions, as a B+ tree that keeps ordering bytes instead of keys.
//
// The key of a position stands in the list node already; the tree stores 16 ordering bytes and 4 bytes of position for
// each entry (about 30 bytes all-in) and asks KeyAt for the whole key only where the bytes of two keys are equal.
// With a million entries a search reads some six cache lines, where a tree of single nodes reads forty.
//
//   KeyAt: K const& operator()(std::uint32_t position) const
//
// Shape: all leaves have the same depth and are chained in key order. A node that is not the root is at least a quarter
// full, save for a leaf that appending has just opened. Entry i of an inner node leads to the keys at or above its
// separator, which is exactly the smallest key below it; the separator of entry 0 is not kept.
// Cost: logarithmic; equal ordering bytes cost one key comparison for each halving of their run.
// Not thread-safe: the cache's lock guards it. Const operations may run together.
#pragma once

#include "include2/KeyOrder.h"
#include "include2/NodePool.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>

namespace Vellum {

template <class K, class KeyAt>
class OrderedIndex {
  public:
    using Position = std::uint32_t;
    static constexpr Position none = 0xFFFFFFFFU;

    explicit OrderedIndex(KeyAt keyAt) : m_keyAt(keyAt) {}
    OrderedIndex(OrderedIndex const&) = delete;
    OrderedIndex& operator=(OrderedIndex const&) = delete;

    // The position stored for `key`, or none. `Key` is K, or a type that stands for one (KeyOrder.h).
    template <class Key>
    Position find(Key const& key) const {
        if (m_root == nullptr) {
            return none;
        }
        OrderPrefix const prefix = KeyOrder<K>::prefix(key);
        void* node = m_root;
        for (unsigned int level = m_height; level > 0; --level) {
            auto* inner = static_cast<Inner*>(node);
            node = inner->child[childFor(*inner, prefix, key)];
            fetch(node);
        }
        auto* leaf = static_cast<Leaf*>(node);
        auto const [at, found] = lowerBound(*leaf, 0, prefix, key);
        return found ? leaf->position[at] : none;
    }

    // Stores `position` for `key`, unless the key is present. Answers the position that was there before, or none.
    // Throws std::bad_alloc and is then unchanged.
    Position insert(K const& key, Position position);
    // Forgets `key`, whose node must still be there. Answers the position it had, or none when it was absent.
    Position erase(K const& key);
    // Forgets everything, at once.
    void clear() {
        m_leaves.forgetAll();
        m_inner.forgetAll();
        m_root = nullptr;
        m_first = nullptr;
        m_height = 0;
    }

    // Calls visit(position) for every entry in key order, until it answers false. `ahead(position)` is called some
    // entries before, for a prefetch.
    template <class Visit, class Ahead>
    void forEach(Visit visit, Ahead ahead) const {
        if (m_first == nullptr) {
            return;
        }
        announce(*m_first, ahead);
        for (Leaf const* leaf = m_first; leaf != nullptr; leaf = leaf->next) {
            if (leaf->next != nullptr) {
                announce(*leaf->next, ahead);
            }
            for (unsigned int i = 0; i < leaf->count; ++i) {
                if (!visit(leaf->position[i])) {
                    return;
                }
            }
        }
    }

    // Whether the shape described above holds; for tests. Walks everything.
    bool isSound() const {
        Leaf const* expected = m_first;
        bool const sound = m_root == nullptr || isSound(m_root, m_height, none, expected);
        return sound && expected == nullptr;
    }

  private:
    static constexpr unsigned int fanout = 32;
    static constexpr unsigned int sparse = fanout / 4;
    static constexpr unsigned int maxHeight = 12; // 8^12 entries with every node as sparse as allowed

    // What both kinds of node keep for an entry, each in an array of its own so that a search stays in few lines.
    struct alignas(64) Entries {
        std::uint64_t high[fanout];
        std::uint64_t low[fanout];
        Position position[fanout];
        unsigned int count = 0;
    };
    struct Leaf : Entries {
        Leaf* next = nullptr;
    };
    struct Inner : Entries {
        void* child[fanout];
    };
    struct Entry {
        OrderPrefix prefix;
        Position position;
    };
    struct Step {
        Inner* node;
        unsigned int child;
    };
    using Path = std::array<Step, maxHeight + 1>; // [1] is the leaves' parent, [m_height] the root

    // Asks for all lines of a node at once: the search then waits for memory once, not once for each line it visits.
    static void fetch(void const* node) {
        auto const* bytes = static_cast<char const*>(node);
        for (std::size_t line = 0; line < sizeof(Entries); line += 64) {
            __builtin_prefetch(bytes + line);
        }
    }

    // First index in [from, to) whose word is at least `word`; branch-free, five rounds for a full node.
    static unsigned int firstNotBelow(std::uint64_t const* words, unsigned int from, unsigned int to,
                                      std::uint64_t word) {
        unsigned int length = to - from;
        std::uint64_t const* base = words + from;
        while (length > 1) {
            unsigned int const half = length / 2;
            base += (base[half - 1] < word) ? half : 0;
            length -= half;
        }
        return static_cast<unsigned int>(base - words) + ((length == 1 && *base < word) ? 1 : 0);
    }
    static unsigned int endOfRun(std::uint64_t const* words, unsigned int from, unsigned int to, std::uint64_t word) {
        // Runs are short as a rule: look at the next one or two before halving.
        if (from == to || words[from] != word) {
            return from;
        }
        if (from + 1 == to || words[from + 1] != word) {
            return from + 1;
        }
        return word == ~std::uint64_t{0} ? to : firstNotBelow(words, from, to, word + 1);
    }

    // First index at or above `from` whose entry is not below the key, and whether it is the key itself.
    template <class Key>
    std::pair<unsigned int, bool> lowerBound(Entries const& entries, unsigned int from, OrderPrefix prefix,
                                             Key const& key) const {
        unsigned int low = firstNotBelow(entries.high, from, entries.count, prefix.high);
        unsigned int high = endOfRun(entries.high, low, entries.count, prefix.high);
        if (low == high) {
            return {low, false};
        }
        low = firstNotBelow(entries.low, low, high, prefix.low);
        high = endOfRun(entries.low, low, high, prefix.low);
        while (low < high) {
            unsigned int const middle = (low + high) / 2;
            int const order = KeyOrder<K>::compare(m_keyAt(entries.position[middle]), key);
            if (order == 0) {
                return {middle, true};
            }
            if (order < 0) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return {low, false};
    }

    template <class Key>
    unsigned int childFor(Inner const& inner, OrderPrefix prefix, Key const& key) const {
        auto const [at, found] = lowerBound(inner, 1, prefix, key);
        return found ? at : at - 1;
    }

    Leaf* descend(OrderPrefix prefix, K const& key, Path& path) const {
        void* node = m_root;
        for (unsigned int level = m_height; level > 0; --level) {
            auto* inner = static_cast<Inner*>(node);
            unsigned int const child = childFor(*inner, prefix, key);
            path[level] = {inner, child};
            node = inner->child[child];
            fetch(node);
        }
        return static_cast<Leaf*>(node);
    }

    static Entry entryAt(Entries const& entries, unsigned int i) {
        return {{entries.high[i], entries.low[i]}, entries.position[i]};
    }
    static void setEntry(Entries& entries, unsigned int i, Entry const& entry) {
        entries.high[i] = entry.prefix.high;
        entries.low[i] = entry.prefix.low;
        entries.position[i] = entry.position;
    }
    static void setChild(Leaf&, unsigned int, void*) {}
    static void setChild(Inner& inner, unsigned int i, void* child) { inner.child[i] = child; }

    // Moves `n` entries; the ranges may overlap within one node.
    static void move(Leaf const& source, unsigned int from, Leaf& target, unsigned int to, unsigned int n) {
        moveEntries(source, from, target, to, n);
    }
    static void move(Inner const& source, unsigned int from, Inner& target, unsigned int to, unsigned int n) {
        moveEntries(source, from, target, to, n);
        moveArray(source.child, from, target.child, to, n);
    }
    static void moveEntries(Entries const& source, unsigned int from, Entries& target, unsigned int to,
                            unsigned int n) {
        moveArray(source.high, from, target.high, to, n);
        moveArray(source.low, from, target.low, to, n);
        moveArray(source.position, from, target.position, to, n);
    }
    template <class T>
    static void moveArray(T const* source, unsigned int from, T* target, unsigned int to, unsigned int n) {
        std::memmove(target + to, source + from, n * sizeof(T));
    }

    template <class Node>
    static void insertEntry(Node& node, unsigned int at, Entry const& entry, void* child) {
        move(node, at, node, at + 1, node.count - at);
        setEntry(node, at, entry);
        setChild(node, at, child);
        ++node.count;
    }
    template <class Node>
    static void eraseEntry(Node& node, unsigned int at) {
        move(node, at + 1, node, at, node.count - at - 1);
        --node.count;
    }

    // How many entries of a full node stay where they are when appending splits it, so that sorted input leaves full
    // nodes behind. An inner node needs a second child at once: its only child could not be refilled.
    static constexpr unsigned int stayOnAppend(Leaf const&) { return fanout; }
    static constexpr unsigned int stayOnAppend(Inner const&) { return fanout - sparse; }

    // Splits the full `node` into itself and the empty `right` and inserts the entry where it belongs. Returns the
    // separator of `right`.
    template <class Node>
    static Entry splitInsert(Node& node, Node& right, unsigned int at, Entry const& entry, void* child) {
        unsigned int const stay = at == fanout ? stayOnAppend(node) : fanout / 2;
        move(node, stay, right, 0, fanout - stay);
        right.count = fanout - stay;
        node.count = stay;
        if (at < stay || (at == stay && stay != fanout)) {
            insertEntry(node, at, entry, child);
        } else {
            insertEntry(right, at - stay, entry, child);
        }
        return entryAt(right, 0);
    }

    void setSeparator(Path const& path, Entry const& smallest) {
        for (unsigned int level = 1; level <= m_height; ++level) {
            if (path[level].child > 0) {
                setEntry(*path[level].node, path[level].child, smallest);
                return;
            }
        }
    }

    // Entry `child` of `parent` has become sparse: merges it with a sibling, or shares the sibling's entries.
    template <class Node>
    void refill(Inner& parent, unsigned int child);
    template <class Node>
    static void share(Inner& parent, unsigned int rightChild, Node& left, Node& right);
    static void unchain(Leaf& left, Leaf const& right) { left.next = right.next; }
    static void unchain(Inner&, Inner const&) {}

    template <class Ahead>
    static void announce(Leaf const& leaf, Ahead ahead) {
        __builtin_prefetch(leaf.next);
        for (unsigned int i = 0; i < leaf.count; ++i) {
            ahead(leaf.position[i]);
        }
    }

    void release(Leaf& leaf) { m_leaves.release(&leaf); }
    void release(Inner& inner) { m_inner.release(&inner); }

    bool isSound(void const* node, unsigned int level, Position smallest, Leaf const*& expected) const;

    KeyAt m_keyAt;
    NodePool<Leaf> m_leaves;
    NodePool<Inner> m_inner;
    void* m_root = nullptr; // a Leaf at height 0, else an Inner
    Leaf* m_first = nullptr;
    unsigned int m_height = 0; // inner levels above the leaves
};

} // namespace Vellum

#include "include2/OrderedIndexImpl.h"
