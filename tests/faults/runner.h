#pragma once
// Runs scenarios in processes of their own and judges how they end.

#include "fault_table.h"
#include "report.h"
#include "scenario.h"

#include <string>
#include <vector>

struct Point {
  const Scenario* scenario;
  inject::Call call;
  int number;  // of the call, from 1
  inject::Fault fault;
};

std::string text_of(const Point& point);  // "echo:read:3:EIO"

// Runs `scenario`, without a fault when `point` is null, and fills in `result`. `verbose`: what the
// library logs goes to standard error as well.
void run_once(const Scenario& scenario, const Point* point, Report* result, bool verbose);

// Memory that processes forked later share.
void* shared_memory(std::size_t size);

// Makes what the runs of this process share, a directory for their files and a log, and removes it.
void enter_work_directory();
void leave_work_directory();
