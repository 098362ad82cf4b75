#pragma once

/* The plug-in scheduler: runs the executable scripts in /usr/lib/lua/tplugins/ on the periods that
 * their names begin with, once a second at most.
 *
 *   60_report.sh   every 60 ticks, first on the 60th; the tick on which it was found counts
 *   0_boot.sh      once, on the tick on which it was found
 *   check.sh, -5x  never
 *
 * The folder is read on every tick. A task is listed when its file is first seen as an executable
 * regular file and leaves the list only when the file is there but no longer executable; a deleted
 * file's task stays and its start fails in the shell. Names are compared over the length of the
 * folder entry's name alone, so a task 30_a.sh hides an entry 30_a, and taking the x bit off 30_a
 * removes the task 30_a.sh.
 *
 * At most 33 tasks are listed. Names of 64 bytes and more are refused, which is said once for each
 * at warn level. What was said is remembered by one of 4096 marks, which the name's hash chooses: a
 * name whose mark another one has left is refused without a word.
 *
 * The name goes into the shell's command as it is: blanks split it, and what means something to the
 * shell means it here. Scripts run in the background, and the daemon neither waits for them nor
 * looks at their result.
 *
 * While the folder cannot be read, the listed tasks run all the same. Without memory for the list
 * the scheduler never starts, which the log says; without memory for a task, or for starting it,
 * that task is passed over. */

void module_crond_start();

/* The timer's callback: reads the folder, then starts what is due. Returns 0. */
int __crond_ontimer(void* argument);
