// Its exit code is the error that a process saw when it made its active-job mark.
#include "api/active_job.h"

int main()
{
    return static_cast<int>(vtflt::ActiveJobError());
}
