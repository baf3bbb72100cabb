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
 * @param area         area of the record and all frames, which must live as long as the stack;
 *                     STG_AREA_HEAP makes heap blocks of them. STG_AREA_NULL ends the process.
 * @param default_len  length that stack_push() stores with its pointer, of any value
 * @return the stack, ended with stack_destroy(); NULL on exhaustion (the storage module has said so,
 *         errno ENOMEM), nothing kept.
 *
 * Threads: any.
 * Raises:  no.
 */
KS_API stack_record *stack_create(stg_area *area, size_t default_len);

/**
 * Ends a stack. A heap stack is given back with all its frames; what they point to stays with the caller.
 * One in an area is left to the area.
 *
 * @param stack  address of the handle, which becomes NULL; one that holds NULL is left alone. NULL itself
 *               ends the process (assertion "stack != NULL").
 *
 * Threads: the stack's user; nobody else may use it any more.
 * Raises:  yes, before anything is done or when all is done and the handle is NULL.
 */
KS_API void stack_destroy(stack_record **stack);

/**
 * Pushes a pair of a pointer and a length.
 *
 * @param stack  the stack; NULL ends the process (assertion "stack != NULL")
 * @param data   the pointer to keep, of any value; the stack does not look at what it points to
 * @param len    the length to keep, of any value
 * @return 0; 1 on exhaustion (the storage module has said so, errno ENOMEM), and then the stack is as it
 *         was.
 *
 * Threads: the stack's user.
 * Raises:  yes, before anything is done or when the pair is on the stack.
 */
KS_API int stack_varlen_push(stack_record *stack, void *data, size_t len);

/**
 * Pushes a pointer with the length that stack_create() was given.
 *
 * @param stack  the stack; NULL ends the process (assertion "stack != NULL")
 * @param data   the pointer to keep, of any value
 * @return 0; 1 on exhaustion (the storage module has said so, errno ENOMEM), and then the stack is as it
 *         was.
 *
 * Threads: the stack's user.
 * Raises:  yes, before anything is done or when the pair is on the stack.
 */
KS_API int stack_push(stack_record *stack, void *data);

/**
 * Pops the pair that was pushed last and is still there.
 *
 * Kept exactly: the frame is freed (on a heap stack), but its list element stays until the stack is
 * destroyed, for stack_depth() counts the pushes.
 *
 * @param stack     the stack; NULL ends the process (assertion "stack != NULL")
 * @param out_data  receives the pointer, NULL when the stack is empty; may be NULL
 * @param out_len   receives the length, 0 when the stack is empty; may be NULL
 * @return 0; 1 when the stack was empty.
 *
 * Threads: the stack's user.
 * Raises:  no.
 */
KS_API int stack_pop(stack_record *stack, void **out_data, size_t *out_len);

/**
 * Number of pushes since the stack was made, counted by a walk. Kept exactly: pops do not lower it, so it
 * is not the number of pairs that can be popped. `stack->top` is NULL when there are none.
 *
 * @param stack  the stack; NULL ends the process (assertion "stack != NULL")
 *
 * Threads: the stack's user.
 * Raises:  no.
 */
KS_API size_t stack_depth(const stack_record *stack);

#ifdef __cplusplus
}
#endif
#endif
