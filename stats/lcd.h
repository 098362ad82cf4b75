#pragma once

#include <stddef.h>
#include <stdint.h>

/* The four-line front panel: every three seconds processor and memory load, the LAN rates and the
 * number of online hosts. Until it is known which panel the device has, each run tries to find out:
 *
 *   a node /dev/st7565          text, the whole 128-byte buffer with zeros behind the text
 *   hash "sys" with pnp = LCD   frames on a serial port at 9600 baud, 8N1; the model that
 *                               "uci" names says which port
 *   "sys" with any other pnp    no panel, for good
 *   no "sys" yet                asked again on the next run
 *
 * A "uci" that gives no answer, or does not end (stats/tool.h), names no model: the panel is then
 * looked for on the second port.
 *
 * A frame is 91 bytes, always written whole:
 *
 *   offset       size     what
 *   0            5        CC B3 00 00 01
 *   5            20 * k   k lines (at most 4), padded with blanks or cut to 20 bytes
 *   5 + 20 * k   2        AA D0
 *   rest                  zeros
 *
 * Nothing waits for the port. A screen that it does not take whole is lost together with what it
 * still holds, and the next one comes in three seconds. A frame takes about 95 ms to go out at this
 * speed, and closing would wait for it, for half a minute where flow control holds the line: so the
 * port stays open from run to run. At the next run, what it has not taken is dropped, and it is
 * opened afresh before it is closed. */

void module_lcd_start();

/* The timer's callback. Returns 0. */
int lcd_ontimer(void* argument);

/* The writer of the serial panel. Sends the text, `length` bytes of which at most 127 are looked
 * at, as a frame, or the clear command CC B1 AA D0 for a text that begins with "__clear". Returns
 * the number of bytes taken (the smaller of length and 128), 0 for the clear command, -1 when the
 * frame was not taken whole. */
int lcd_write_frame(int fd, const char* text, size_t length);

/* A rate in bytes per second as "999B/s", "  1KB/s" or "1.50MB/s", in one static buffer: valid
 * until the next call. Units are decimal. */
const char* rate_format(uint32_t rate);
