#pragma once
// A representative run of the library. It begins with calls counted; what it does itself is in Own
// scopes. It judges what has come of its data, and leaves nothing open or allocated.

struct Scenario {
  const char* name;
  void (*run)();
};

void run_connect();
void run_daemonise();
void run_echo();
void run_echo_queue();
void run_logging();
void run_relay();
void run_reload();
void run_timed_io();

// The directory for the files of the scenario; the runner empties it afterwards.
extern const char* work_directory;
