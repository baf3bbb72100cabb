/**
 * @file stack.h
 * Stack of (pointer, length) pairs, built on a list of frames.
 *
 * The stack keeps the caller's pointers and owns nothing they point to. It has no lock: one that
 * threads share is guarded by its user. Raises are held off while it changes, so a raise never
 * leaves a half-made frame. A NULL stack is misuse and ends the process unless a comment gives it
 * a meaning.
 *
 * Kept exactly: popping leaves the frame's list element behind, so stack_depth() counts the pushes
 * since creation, and a stack takes one list element of memory for each of them until it is
 * destroyed.
 */
#ifndef KORVAKS_STACK_H
#define KORVAKS_STACK_H

#include <korvaks/base.h>
#include <korvaks/list.h>

#ifdef __cplusplus
extern "C" {
#endif

/** What one push stores. */
typedef struct stack_frame {
    list_element *previous; /**< the top before this frame, NULL when it is the lowest */
    size_t length;
    void *data; /**< the caller's pointer */
} stack_frame;

/** A stack. Its fields may be read; only the functions below change them. */
typedef struct stack_record {
    stg_area *area;      /**< where frames and list elements come from */
    list_record *frames; /**< one element for each push; its data is the stack_frame until popped */
    list_element *top;   /**< element of the current top frame, NULL when empty */
    size_t default_len;  /**< length that stack_push() stores */
} stack_record;

/**
 * Makes an empty stack.
 *
 * @param area         area of the record and all frames, or STG_AREA_HEAP
 * @param default_len  length that stack_push() stores
 * @return the stack, ended with stack_destroy(); NULL on exhaustion, nothing kept.
 * Raises: as stg_alloc().
 */
KS_API stack_record *stack_create(stg_area *area, size_t default_len);

/**
 * Ends a stack and stores NULL in the caller's handle. A heap stack is given back with its frames;
 * one in an area is left to the area. A handle that holds NULL is left alone.
 * Raises: yes, before anything is done or when all is done and the handle is NULL.
 */
KS_API void stack_destroy(stack_record **stack);

/**
 * Pushes a pair.
 * @return 0; 1 on exhaustion (the heap level has reported it), and then the stack is as it was.
 * Raises: yes, before anything is done or when the pair is on the stack.
 */
KS_API int stack_varlen_push(stack_record *stack, void *data, size_t len);

/** stack_varlen_push() with the stack's default length. */
KS_API int stack_push(stack_record *stack, void *data);

/**
 * Pops the top pair.
 *
 * @param out_data, out_len  receive the pair; NULL and 0 when the stack is empty. Either may be NULL.
 * @return 0, or 1 when the stack was empty.
 * Raises: as stg_free() on a heap stack, and then the pair is still on the stack.
 */
KS_API int stack_pop(stack_record *stack, void **out_data, size_t *out_len);

/** Number of pushes since the stack was made; pops do not lower it. */
KS_API size_t stack_depth(const stack_record *stack);

#ifdef __cplusplus
}
#endif
#endif
