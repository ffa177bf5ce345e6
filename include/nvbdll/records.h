/* All decoded record structures: their field order is that of the DAT form. */
#ifndef NVBDLL_RECORDS_H
#define NVBDLL_RECORDS_H

#include "records_auxiliary.h"
#include "records_measurement.h"
#include "records_navigation.h"
#include "records_position.h"
#include "records_rec33.h"
#include "records_receiver.h"

#endif
