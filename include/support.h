// support.h - small string helpers shared by every part of the sub-service.
#pragma once

#include <cstddef>

// Upper-cases the ASCII letters a..z of Value in place; returns 0.
int strupr(char *Value);

// Copies Src into Dest of DestSize bytes, always NUL-terminated when DestSize > 0.
// Returns 0 when the whole string fitted, 1 when it was cut (or Src is NULL: Dest empty).
int CopyBounded(char *Dest, size_t DestSize, const char *Src);

// Copies the whole of Src into Dest of DestSize bytes and returns 0; when Src does not fit
// (or is NULL) returns 1 and leaves Dest untouched. For values that a cut would change.
int CopyWhole(char *Dest, size_t DestSize, const char *Src);

// Returns a malloc'ed copy of Src, or NULL for a NULL Src or when memory runs out.
char *DuplicateString(const char *Src);

// Links Item at the end of the singly linked list *Head, whose last node *Tail remembers so
// that an append takes constant time; a *Tail that lags behind (nodes linked after it
// elsewhere) is walked forward first. Next names the link member.
template <typename T> void AppendToList(T **Head, T **Tail, T *Item, T *T::*Next)
{
    if (*Head == nullptr) {
        *Head = Item;
    } else {
        while ((*Tail)->*Next != nullptr)
            *Tail = (*Tail)->*Next;
        (*Tail)->*Next = Item;
    }
    *Tail = Item;
}
