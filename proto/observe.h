#pragma once

#include "proto/resp.h"

/* Observation: clients that sent "observe" are pushed every change that the store announces, as an
 * event frame ("!" in place of "*") on their connection, until the connection closes.
 *
 * List invariants: the head's observe_prev points to the head itself, every other member's to its
 * predecessor; the last member's observe_next is null; a client is in the list exactly when its
 * observe_prev is not null. The most recent observer is the head. */

struct client;

/* Head of the list of observers, null when nobody observes. */
extern client* observers;

/* Joins the store's change events (store/event.h) to the observers. Called once at start-up. */
void observe_init();

/* Puts a client at the head. Returns false, with the list unchanged, when it observes already. */
bool observers_add(client* c);

/* Takes a client off the list; one that does not observe is left alone. */
void observers_remove(client* c);

/* Pushes an event, a multibulk that the caller owns, to every observer but the client whose command
 * caused it. May close connections of observers, whose records stay valid until the end of the
 * loop's pass. An event that cannot be composed whole is sent to nobody. */
void notify_observers(const resp* event);
