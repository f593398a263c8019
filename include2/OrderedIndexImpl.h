// The changing half of OrderedIndex; included by OrderedIndex.h only.
#pragma once

#include "include2/OrderedIndex.h"

namespace Vellum {

template <class K, class KeyAt>
auto OrderedIndex<K, KeyAt>::insert(K const& key, Position position) -> Position {
    Entry entry{KeyOrder<K>::prefix(key), position};
    if (m_root == nullptr) {
        m_first = m_leaves.make().release();
        m_root = m_first;
    }
    Path path;
    Leaf* leaf = descend(entry.prefix, key, path);
    auto const [at, found] = lowerBound(*leaf, 0, entry.prefix, key);
    if (found) {
        return leaf->position[at];
    }
    if (leaf->count < fanout) {
        insertEntry(*leaf, at, entry, nullptr);
        return none;
    }

    // Everything that must be allocated comes first, so that a failure leaves the tree as it was.
    unsigned int fullLevels = 0;
    while (fullLevels < m_height && path[fullLevels + 1].node->count == fanout) {
        ++fullLevels;
    }
    auto newLeaf = m_leaves.make();
    std::array<typename NodePool<Inner>::Handle, maxHeight + 1> newInner;
    for (unsigned int i = 0; i < fullLevels; ++i) {
        newInner[i] = m_inner.make();
    }
    typename NodePool<Inner>::Handle newRoot;
    if (fullLevels == m_height) {
        newRoot = m_inner.make();
    }

    entry = splitInsert(*leaf, *newLeaf, at, entry, nullptr);
    newLeaf->next = leaf->next;
    leaf->next = newLeaf.get();
    void* right = newLeaf.release();
    for (unsigned int level = 1; level <= fullLevels; ++level) {
        Step const& step = path[level];
        Inner* sibling = newInner[level - 1].release();
        entry = splitInsert(*step.node, *sibling, step.child + 1, entry, right);
        right = sibling;
    }
    if (newRoot == nullptr) {
        Step const& step = path[fullLevels + 1];
        insertEntry(*step.node, step.child + 1, entry, right);
        return none;
    }
    newRoot->child[0] = m_root;
    setEntry(*newRoot, 0, {});
    newRoot->count = 1;
    insertEntry(*newRoot, 1, entry, right);
    m_root = newRoot.release();
    ++m_height;
    return none;
}

template <class K, class KeyAt>
auto OrderedIndex<K, KeyAt>::erase(K const& key) -> Position {
    if (m_root == nullptr) {
        return none;
    }
    OrderPrefix const prefix = KeyOrder<K>::prefix(key);
    Path path;
    Leaf* leaf = descend(prefix, key, path);
    auto const [at, found] = lowerBound(*leaf, 0, prefix, key);
    if (!found) {
        return none;
    }
    Position const erased = leaf->position[at];
    eraseEntry(*leaf, at);
    if (at == 0) {
        // A separator must name a key that is still there.
        if (leaf->count > 0) {
            setSeparator(path, entryAt(*leaf, 0));
        } else if (m_height > 0 && path[1].child == 0) {
            setSeparator(path, entryAt(*leaf->next, 0)); // the right sibling is about to move in
        }
    }
    if (m_height == 0 || leaf->count >= sparse) {
        return erased;
    }
    refill<Leaf>(*path[1].node, path[1].child);
    for (unsigned int level = 1; level < m_height && path[level].node->count < sparse; ++level) {
        refill<Inner>(*path[level + 1].node, path[level + 1].child);
    }
    auto* root = static_cast<Inner*>(m_root);
    if (root->count == 1) {
        m_root = root->child[0];
        --m_height;
        release(*root);
    }
    return erased;
}

template <class K, class KeyAt>
template <class Node>
void OrderedIndex<K, KeyAt>::refill(Inner& parent, unsigned int child) {
    unsigned int const rightChild = child == 0 ? 1 : child;
    auto& left = *static_cast<Node*>(parent.child[rightChild - 1]);
    auto& right = *static_cast<Node*>(parent.child[rightChild]);
    setEntry(right, 0, entryAt(parent, rightChild)); // complete an inner node's first entry; a leaf's is the same
    if (left.count + right.count > fanout) {
        share(parent, rightChild, left, right);
        return;
    }
    move(right, 0, left, left.count, right.count);
    left.count += right.count;
    unchain(left, right);
    eraseEntry(parent, rightChild);
    release(right);
}

template <class K, class KeyAt>
template <class Node>
void OrderedIndex<K, KeyAt>::share(Inner& parent, unsigned int rightChild, Node& left, Node& right) {
    unsigned int const half = (left.count + right.count) / 2;
    if (left.count < half) {
        unsigned int const n = half - left.count;
        move(right, 0, left, left.count, n);
        move(right, n, right, 0, right.count - n);
        left.count += n;
        right.count -= n;
    } else {
        unsigned int const n = left.count - half;
        move(right, 0, right, n, right.count);
        move(left, half, right, 0, n);
        left.count -= n;
        right.count += n;
    }
    setEntry(parent, rightChild, entryAt(right, 0));
}

template <class K, class KeyAt>
bool OrderedIndex<K, KeyAt>::isSound(void const* node, unsigned int level, Position smallest,
                                     Leaf const*& expected) const {
    auto const& entries = level == 0 ? static_cast<Entries const&>(*static_cast<Leaf const*>(node))
                                     : static_cast<Entries const&>(*static_cast<Inner const*>(node));
    if (entries.count > fanout || (node != m_root && entries.count == 0)) {
        return false;
    }
    for (unsigned int i = level == 0 ? 0 : 1; i < entries.count; ++i) {
        K const& key = m_keyAt(entries.position[i]);
        if (entryAt(entries, i).prefix != KeyOrder<K>::prefix(key) ||
            (i > (level == 0 ? 0U : 1U) && KeyOrder<K>::compare(m_keyAt(entries.position[i - 1]), key) >= 0)) {
            return false;
        }
    }
    if (level == 0) {
        bool const chained = node == expected;
        expected = static_cast<Leaf const*>(node)->next;
        return chained && (smallest == none || entries.count == 0 || entries.position[0] == smallest);
    }
    auto const& inner = *static_cast<Inner const*>(node);
    if (inner.count < 2) {
        return false;
    }
    for (unsigned int i = 0; i < inner.count; ++i) {
        if (!isSound(inner.child[i], level - 1, i == 0 ? smallest : inner.position[i], expected)) {
            return false;
        }
    }
    return true;
}

} // namespace Vellum
