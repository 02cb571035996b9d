/*
 * The quick map: a red-black tree of the caller's items, threaded by a ring in key order. The map's `nil` item is the
 * leaf of the tree, the parent of the root and the end of the ring, so that no step has to ask for null.
 *
 * A linked item carries the map's stamp, a number that every init and every remove-all draws anew. By it a removal
 * tells an item of this map from one that is in another map, or no longer in any.
 */
#include <atomic>

#include "kr_complib.h"

namespace {

constexpr const char *source_name = "qmap.cpp";

enum item_color : uint32_t { black = 0, red = 1 };

constinit struct { std::atomic<uint32_t> last_stamp{0}; } g;

using side = cl_map_item_t *cl_map_item_t::*;

constexpr side opposite(side which) {
    return which == &cl_map_item_t::left ? &cl_map_item_t::right : &cl_map_item_t::left;
}

cl_map_item_t *end_of(const cl_qmap_t *map) {
    return const_cast<cl_map_item_t *>(&map->nil);
}

bool is_usable(const cl_qmap_t *map) {
    const bool usable = map->state == CL_STATE_INITIALIZED;
    CL_ASSERT_AT(usable, source_name);
    return usable;
}

bool is_linked(const cl_qmap_t *map, const cl_map_item_t *item) {
    return item != nullptr && item != &map->nil && item->reserved == map->nil.reserved &&
           item->next->previous == item && item->previous->next == item;
}

void make_empty(cl_qmap_t *map) {
    cl_map_item_t *const nil = &map->nil;
    uint32_t stamp = 0;
    while (stamp == 0) { // 0 is the stamp of an item in no map
        stamp = g.last_stamp.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    *nil = {nil, nil, nil, nil, nil, 0, black, stamp};
    map->root = nil;
    map->count = 0;
}

// Puts `replacement` where `item` hangs.
void hang_instead(cl_qmap_t *map, cl_map_item_t *item, cl_map_item_t *replacement) {
    if (item->parent == &map->nil) {
        map->root = replacement;
    } else if (item == item->parent->left) {
        item->parent->left = replacement;
    } else {
        item->parent->right = replacement;
    }
    replacement->parent = item->parent; // of `nil` too: the removal climbs from there
}

// Turns the tree at `item` towards `which`: its child of the other side takes its place.
void rotate(cl_qmap_t *map, cl_map_item_t *item, side which) {
    const side other = opposite(which);
    cl_map_item_t *const child = item->*other;
    item->*other = child->*which;
    if (child->*which != &map->nil) {
        (child->*which)->parent = item;
    }
    hang_instead(map, item, child);
    child->*which = item;
    item->parent = child;
}

void rebalance_after_insert(cl_qmap_t *map, cl_map_item_t *item) {
    while (item->parent->color == red) {
        cl_map_item_t *const grandparent = item->parent->parent;
        const side which = item->parent == grandparent->left ? &cl_map_item_t::left : &cl_map_item_t::right;
        const side other = opposite(which);
        cl_map_item_t *const uncle = grandparent->*other;
        if (uncle->color == red) {
            item->parent->color = black;
            uncle->color = black;
            grandparent->color = red;
            item = grandparent;
            continue;
        }
        if (item == item->parent->*other) {
            item = item->parent;
            rotate(map, item, which);
        }
        item->parent->color = black;
        grandparent->color = red;
        rotate(map, grandparent, other);
    }
    map->root->color = black;
}

// `item` hangs where a black item is missing.
void rebalance_after_removal(cl_qmap_t *map, cl_map_item_t *item) {
    while (item != map->root && item->color == black) {
        cl_map_item_t *const parent = item->parent;
        const side which = item == parent->left ? &cl_map_item_t::left : &cl_map_item_t::right;
        const side other = opposite(which);
        cl_map_item_t *sibling = parent->*other;
        if (sibling->color == red) {
            sibling->color = black;
            parent->color = red;
            rotate(map, parent, which);
            sibling = parent->*other;
        }
        if (sibling->left->color == black && sibling->right->color == black) {
            sibling->color = red;
            item = parent;
            continue;
        }
        if ((sibling->*other)->color == black) {
            (sibling->*which)->color = black;
            sibling->color = red;
            rotate(map, sibling, other);
            sibling = parent->*other;
        }
        sibling->color = parent->color;
        parent->color = black;
        (sibling->*other)->color = black;
        rotate(map, parent, which);
        item = map->root;
    }
    item->color = black;
}

// Takes `item` out of the tree; the ring knows the item that takes its place when it has two children.
void unhang(cl_qmap_t *map, cl_map_item_t *item) {
    cl_map_item_t *const nil = &map->nil;
    uint32_t missing_color = item->color;
    cl_map_item_t *orphan;
    if (item->left == nil || item->right == nil) {
        orphan = item->left == nil ? item->right : item->left;
        hang_instead(map, item, orphan);
    } else {
        cl_map_item_t *const successor = item->next;
        missing_color = successor->color;
        orphan = successor->right;
        if (successor->parent == item) {
            orphan->parent = successor;
        } else {
            hang_instead(map, successor, orphan);
            successor->right = item->right;
            successor->right->parent = successor;
        }
        hang_instead(map, item, successor);
        successor->left = item->left;
        successor->left->parent = successor;
        successor->color = item->color;
    }
    if (missing_color == black) {
        rebalance_after_removal(map, orphan);
    }
    nil->left = nil->right = nil->parent = nil;
}

// The first item whose key is not below `key`.
cl_map_item_t *lower_bound(const cl_qmap_t *map, uint64_t key) {
    cl_map_item_t *found = end_of(map);
    for (cl_map_item_t *item = map->root; item != &map->nil;) {
        if (item->key < key) {
            item = item->right;
        } else {
            found = item;
            item = item->left;
        }
    }
    return found;
}

void remove_linked(cl_qmap_t *map, cl_map_item_t *item) {
    unhang(map, item);
    item->previous->next = item->next;
    item->next->previous = item->previous;
    item->reserved = 0;
    map->count--;
}

} // namespace

void cl_qmap_init(cl_qmap_t *map) {
    make_empty(map);
    map->state = CL_STATE_INITIALIZED;
}

cl_map_item_t *cl_qmap_insert(cl_qmap_t *map, uint64_t key, cl_map_item_t *item) {
    cl_map_item_t *const nil = &map->nil;
    CL_ASSERT_AT(item != nullptr, source_name);
    if (!is_usable(map) || item == nullptr) {
        return nil;
    }
    cl_map_item_t *parent = nil;
    cl_map_item_t *next = nil;
    for (cl_map_item_t *other = map->root; other != nil;) {
        if (other->key == key) {
            return other;
        }
        parent = other;
        next = key < other->key ? other : next;
        other = key < other->key ? other->left : other->right;
    }
    *item = {nil, nil, parent, next->previous, next, key, red, nil->reserved};
    item->previous->next = item;
    next->previous = item;
    if (parent == nil) {
        map->root = item;
    } else if (key < parent->key) {
        parent->left = item;
    } else {
        parent->right = item;
    }
    map->count++;
    rebalance_after_insert(map, item);
    return item;
}

cl_map_item_t *cl_qmap_get(const cl_qmap_t *map, uint64_t key) {
    if (!is_usable(map)) {
        return end_of(map);
    }
    for (cl_map_item_t *item = map->root; item != &map->nil;) {
        if (item->key == key) {
            return item;
        }
        item = key < item->key ? item->left : item->right;
    }
    return end_of(map);
}

cl_map_item_t *cl_qmap_get_not_below(const cl_qmap_t *map, uint64_t key) {
    return is_usable(map) ? lower_bound(map, key) : end_of(map);
}

void cl_qmap_remove_item(cl_qmap_t *map, cl_map_item_t *item) {
    if (is_usable(map) && is_linked(map, item)) {
        remove_linked(map, item);
    }
}

cl_map_item_t *cl_qmap_remove(cl_qmap_t *map, uint64_t key) {
    cl_map_item_t *const item = cl_qmap_get(map, key);
    if (item != &map->nil) {
        remove_linked(map, item);
    }
    return item;
}

void cl_qmap_remove_all(cl_qmap_t *map) {
    if (is_usable(map)) {
        make_empty(map);
    }
}
