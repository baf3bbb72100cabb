/**
 * @file imsg_prompt.h
 * Prompts: questions to the user, and their answers.
 *
 *     unsigned answers = IMSG_CHOICE_YES | IMSG_CHOICE_NO;
 *     if (imsg_prompt_yes_no(IMSG_WARNING, "Replace it?", answers, IMSG_CHOICE_NO) != IMSG_CHOICE_YES)
 *         return;
 *
 * Each question goes one of these ways, chosen anew at every call:
 *  1. In a daemon it is cancelled at once, and nothing is written.
 *  2. Where output slot 0 holds a procedure (imsg_in_gui()) and imsg_use_prompt_procs() has installed one for the
 *     question, that procedure answers. It is called with no lock held.
 *  3. Where ks_force_gui() says so, the prompting tool `velprompt` of the product's tool directory asks, in a child
 *     process; the imsg_velprompt_ functions always go that way.
 *  4. Else it is asked on the terminal: written to the standard error of the messages, answered on standard input.
 *
 * On the terminal a prompt takes the *turn* to talk with the user: other threads that print to the terminal or ask
 * wait until it is answered. Threads that hold a lock of the library or are inhibited print at once, since others may
 * wait for them; so do those whose messages go to a log file or a procedure. No lock is held while a prompt waits:
 * allocations, forks, drains of a daemon's pipes and exits go on. An answer that ends with the end of the input is
 * an answer too. Where standard input is no terminal, the questions are written and the answers read all the same.
 *
 * Standard input is read through `stdin`: what was typed ahead, and lines behind an answer, stay in its buffer or in
 * the terminal for the program's own getchar().
 *
 * Threads: any. A raise ends a question that a caller asks who is not inhibited: at once on the attached thread; on
 * others within a quarter of a second on the terminal, and when the tool has ended. The terminal's modes are put back,
 * the turn is given up, files and memory are released, a tool that still runs is ended, and then the raise goes on. The
 * modes are put back as well before a stop by SIGTSTP and at exit(). A process in the background stops before it reads
 * from its terminal. The prompts start the fault manager (pfm.h) where nobody has.
 */
#ifndef KORVAKS_IMSG_PROMPT_H
#define KORVAKS_IMSG_PROMPT_H

#include <stdio.h>

#include <korvaks/base.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * @name Choices
 * Bits for the answers of yes/no and proceed questions: a set of allowed ones (mask), the default, the result. The
 * words for them come from the message catalogue.
 */
/**@{*/
#define IMSG_CHOICE_ABORT 1u
#define IMSG_CHOICE_PROCEED 2u
#define IMSG_CHOICE_YES 4u
#define IMSG_CHOICE_NO 8u
/**@}*/

/** @name Results of the other questions */
/**@{*/
/** Cancelled, or failed. Nothing was stored. */
#define IMSG_PROMPT_CANCELLED 1
/** Answered: the value is stored. */
#define IMSG_PROMPT_ANSWERED 2
/**@}*/

/** Numbers that a multiple selection holds at most. */
#define IMSG_SELECTION_MAX 128

/** Bytes of an answer at most. */
#define IMSG_INPUT_MAX 1048576

/**
 * @name Procedures of a front end
 * Each gets what its prompt was called with, and the information pointer; what it returns is the prompt's result.
 * What it stores is the caller's of the prompt, who frees it with stg_free(): it comes from stg_malloc(). It must not
 * throw; it may raise.
 */
/**@{*/
typedef int (*imsg_prompt_text_proc)(const char *question, const char *dflt, int multi_line, char **out_answer,
                                     void *info);
typedef int (*imsg_prompt_password_proc)(const char *question, char **out_answer, void *info);
typedef int (*imsg_prompt_file_proc)(const char *question, const char *dflt, const char *pattern, const char *directory,
                                     char **out_answer, void *info);
typedef int (*imsg_prompt_list_proc)(const char *header, char *const *items, int item_count, int multi,
                                     int **out_selection, void *info);
typedef unsigned (*imsg_prompt_choice_proc)(int kind, const char *question, unsigned mask, unsigned dflt, void *info);

/** One procedure a question, in this order; NULL where the front end does not answer it. */
typedef struct imsg_prompt_procs {
    imsg_prompt_text_proc text;
    imsg_prompt_password_proc password;
    imsg_prompt_list_proc list; /**< also for imsg_prompt_txt_list(), with the lines of its file */
    imsg_prompt_file_proc file;
    imsg_prompt_choice_proc yes_no;
    imsg_prompt_choice_proc proceed;
} imsg_prompt_procs;

/**
 * Installs the procedures that answer prompts while output slot 0 holds a procedure.
 *
 * @param procs  copied; NULL clears the table
 * @param info   handed to each procedure; NULL clears the table as well
 * A prompt that is under way in another thread goes on as it began.
 * Threads: any. Raises: no.
 */
KS_API void imsg_use_prompt_procs(const imsg_prompt_procs *procs, void *info);
/**@}*/

/** @name Prompts */
/**@{*/

/**
 * Asks a question that is answered with yes or no.
 *
 * On the terminal the question and " [default] " are written and a line is read. Leading blanks and tabs do not
 * count; nothing, the end of the input or an error of it is the default. Otherwise the answer, in any letter case, is
 * the start of one allowed word; "abort" counts when the mask has it, or has neither yes nor no. Any other answer shows
 * the allowed words, after "Ambiguous response" where several begin like that, and asks again.
 *
 * @param kind      a message kind (imsg.h), by which the prompting tool chooses its look
 * @param question  not NULL; written as it is, so it ends as the caller wants it to
 * @param mask      allowed answers. What is none of abort, yes and no is dropped; where nothing is left, all three are.
 * @param dflt      abort, yes or no; anything else is yes where the mask allows it, else no where it allows that,
 *                  else abort. The default is always allowed.
 * @return IMSG_CHOICE_YES, IMSG_CHOICE_NO or IMSG_CHOICE_ABORT; in a daemon IMSG_CHOICE_ABORT.
 *
 * Threads: any. Raises: yes.
 */
KS_API unsigned imsg_prompt_yes_no(int kind, const char *question, unsigned mask, unsigned dflt);

/**
 * imsg_prompt_yes_no() with the words "proceed" and "abort": the default of a wrong `dflt` is proceed where the mask
 * allows it, else abort.
 *
 * @return IMSG_CHOICE_PROCEED or IMSG_CHOICE_ABORT; in a daemon IMSG_CHOICE_ABORT.
 * Threads: any. Raises: yes.
 */
KS_API unsigned imsg_prompt_proceed(int kind, const char *question, unsigned mask, unsigned dflt);

/**
 * Asks for a line or a block of text.
 *
 * On the terminal the question is written, for a single line with " [default] " behind it where there is a default.
 * With several lines the default is shown before the question and message 5, `("." to accept default)`, behind it. The
 * answer is read as imsg_get_input() does.
 *
 * @param question    not NULL
 * @param dflt        taken for an empty answer; NULL: none
 * @param multi_line  not 0: a block of lines, ended by a line "." or the end of the input
 * @param out_answer  not NULL; receives the answer without its last line feed, owned by the caller, who frees it
 *                    with stg_free()
 * @return IMSG_PROMPT_ANSWERED; IMSG_PROMPT_CANCELLED at the end of the input, after an error (which is printed),
 *         when memory is exhausted and in a daemon: then `*out_answer` is as it was.
 *
 * Threads: any. Raises: yes.
 */
KS_API int imsg_prompt_text(const char *question, const char *dflt, int multi_line, char **out_answer);

/**
 * Asks for a password: a line of text that is not shown. On a terminal the echo is off while it is typed, and a line
 * feed is written behind it; what was typed ahead with the echo on is taken as well. The library wipes its own copies.
 *
 * @param question, out_answer  as for imsg_prompt_text(); an empty answer is ""
 * @return as imsg_prompt_text().
 * Threads: any. Raises: yes.
 */
KS_API int imsg_prompt_password(const char *question, char **out_answer);

/**
 * Asks for the name of a file. On the terminal it is a line of text as for imsg_prompt_text(), taken as typed: the
 * pattern and the directory are for those who show files.
 *
 * @param question, dflt, out_answer  as for imsg_prompt_text()
 * @param pattern    which files to show, such as "*.c"; NULL: all
 * @param directory  where to begin; NULL: anywhere
 * @return as imsg_prompt_text(). Whether there is such a file is not looked at.
 *
 * Threads: any. Raises: yes.
 */
KS_API int imsg_prompt_file(const char *question, const char *dflt, const char *pattern, const char *directory,
                            char **out_answer);

/**
 * Asks for one item of a list, or for several.
 *
 * On the terminal the header and the items are written, numbered from 1. An answer that is no number, or is out of
 * range, asks again; 0 cancels. For several, the numbers stand with blanks, tabs or commas between them: a 0 behind
 * others ends the selection there, and more than IMSG_SELECTION_MAX ask again.
 *
 * @param header         not NULL
 * @param items          `item_count` texts
 * @param item_count     0 or less: nothing is asked, and the result is IMSG_PROMPT_CANCELLED
 * @param multi          not 0: several may be chosen
 * @param out_selection  not NULL; receives the numbers as chosen, with a 0 behind the last, owned by the caller, who
 *                       frees them with stg_free()
 * @return IMSG_PROMPT_ANSWERED; IMSG_PROMPT_CANCELLED after a 0, at the end of the input, when memory is exhausted
 *         and in a daemon: then `*out_selection` is as it was.
 *
 * Threads: any. Raises: yes.
 */
KS_API int imsg_prompt_list(const char *header, char *const *items, int item_count, int multi, int **out_selection);

/**
 * imsg_prompt_list() of several items, which are the lines of a text file.
 *
 * @param header         not NULL
 * @param item_file      path; its last line may lack its line feed
 * @param out_selection  as for imsg_prompt_list()
 * @return as imsg_prompt_list(); IMSG_PROMPT_CANCELLED too where the file cannot be read, holds a NUL, or holds
 *         nothing.
 * Threads: any. Raises: yes.
 */
KS_API int imsg_prompt_txt_list(const char *header, const char *item_file, int **out_selection);
/**@}*/

/**
 * @name Through the prompting tool
 * The same questions, always asked by `velprompt` of ks_product_tool_dir(): where it cannot be started, or a signal
 * ends it, the question is cancelled. The tool is waited for while it is stopped. A program's own waitpid(-1) does no
 * harm. Mask and default are handed on as they are given; the tool makes the rules of the prompts on them. Arguments
 * and answers are described in docs/prompts.md. A daemon asks nothing here either. Threads: any. Raises: yes.
 */
/**@{*/

/** imsg_prompt_yes_no() by the tool: its exit status 0 is yes, 1 is no, anything else abort. */
KS_API unsigned imsg_velprompt_yes_no(int kind, const char *question, unsigned mask, unsigned dflt);
/** imsg_prompt_proceed() by the tool: its exit status 0 is proceed, anything else abort. */
KS_API unsigned imsg_velprompt_proceed(int kind, const char *question, unsigned mask, unsigned dflt);
/** imsg_prompt_text() by the tool. The answer is the whole of what the tool wrote. */
KS_API int imsg_velprompt_text(const char *question, const char *dflt, int multi_line, char **out_answer);
/** imsg_prompt_password() by the tool. The file in between has mode 0600 and is gone in every case. */
KS_API int imsg_velprompt_password(const char *question, char **out_answer);
/** imsg_prompt_file() by the tool. */
KS_API int imsg_velprompt_file(const char *question, const char *dflt, const char *pattern, const char *directory,
                               char **out_answer);
/**
 * imsg_prompt_list() by the tool. Items are one argument of it, with line feeds between them (one inside an item is
 * shown as a blank): where they are longer than the system's limit, 128 KiB on Linux, the tool cannot be started.
 */
KS_API int imsg_velprompt_list(const char *header, char *const *items, int item_count, int multi, int **out_selection);
/** imsg_prompt_txt_list() by the tool, which reads the file. */
KS_API int imsg_velprompt_txt_list(const char *header, const char *item_file, int **out_selection);

/**
 * Reads the answer that the prompting tool wrote.
 *
 * @param path  its output file, followed through symbolic links
 * @return the whole content as a new string, owned by the caller, who frees it with stg_free(); NULL, with errno,
 *         when the file cannot be read (EISDIR for a directory), holds a NUL (EILSEQ) or memory is exhausted.
 * Threads: any. Raises: yes; the file is closed and the memory released then.
 */
KS_API char *imsg_read_outfile(const char *path);
/**@}*/

/**
 * Reads one answer from a stream, as imsg_prompt_text() does; nothing is written but errors.
 *
 * A single line is answered by its text, an empty one by the default where there is one. A block of lines ends with
 * a line "." or the end of the input; where it holds no line, the line "." takes the default, or "" without one. At the
 * end of a terminal's input (Ctrl-D) the stream can be read again afterwards.
 *
 * Errors are printed as "Unable to process input: ..." with the reason: a read error; "Input buffer overflow" for an
 * answer above IMSG_INPUT_MAX bytes, whose line is skipped to its end; an answer with a NUL; memory.
 *
 * @param in          open for reading. Its buffer and position stay usable for the program's own reads.
 * @param dflt        NULL: none
 * @param multi_line  not 0: a block of lines
 * @param out_answer  not NULL; as for imsg_prompt_text()
 * @return IMSG_PROMPT_ANSWERED; IMSG_PROMPT_CANCELLED when the input ends before anything was read, and after an error.
 *
 * Threads: any; no other thread reads the stream meanwhile. Raises: yes; what was read of the answer is lost then.
 */
KS_API int imsg_get_input(FILE *in, const char *dflt, int multi_line, char **out_answer);

#ifdef __cplusplus
}
#endif
#endif
