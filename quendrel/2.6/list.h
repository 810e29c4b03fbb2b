/* SPDX-License-Identifier: GPL-2.0-only */
// A doubly linked circular list whose links stand inside the listed records. A head that points at itself is empty.
#pragma once

struct list_head {
    list_head* next;
    list_head* prev;
};

inline void listInit(list_head* head)
{
    head->next = head;
    head->prev = head;
}

inline bool listEmpty(const list_head* head) { return head->next == head; }

inline void listAddTail(list_head* entry, list_head* head)
{
    entry->prev = head->prev;
    entry->next = head;
    head->prev->next = entry;
    head->prev = entry;
}

inline void listRemove(list_head* entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
}

// The record of type `type` whose link `member` is `link`.
#define LIST_RECORD(link, type, member)                                                                                \
    reinterpret_cast<type*>(reinterpret_cast<char*>(link) - __builtin_offsetof(type, member))
