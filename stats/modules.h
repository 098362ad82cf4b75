#pragma once

/* The statistics modules: the table of their start functions, called once at start-up. Each makes
 * the keys that it owns and adds its timer; nothing is ever unregistered. */

/* Calls every start function in table order. */
void modules_start();
