#pragma once

/* What a target finds wrong by itself, beside what the sanitizers find. */

/* Prints `what` and aborts when it does not hold, which libFuzzer reports with the input. */
void fuzz_require(bool holds, const char* what);
