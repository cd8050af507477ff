/*
 * Copyright (C) 2026 The bundlerun Authors
 * SPDX-License-Identifier: Apache-2.0
 */

// The picture of a session: one self-contained SVG that shows on one time axis the parts of the
// update and each task's outcome, the download's speed, its retries, redirects, pauses,
// continues and stop, and in words the integrity verdict, the install and the result.

#pragma once

#include <string>

#include "record.h"

// An axis from 0 to |top| in |intervals| steps of |step|.
struct AxisScale {
  double step;
  double top;
  int intervals;
};

// Returns the axis that holds |max| in at most |max_intervals| steps, each step 1, 2 or 5 times a
// power of ten; an axis of one step of 1 when |max| is not above 0.
AxisScale NiceAxis(double max, int max_intervals);

// Returns |value| as a tick label, with as many decimals as |step| needs ("0.5", "12").
std::string TickLabel(double value, double step);

// Returns |text| fit to stand in XML character data or an attribute: cleaned (CleanText), markup
// characters escaped, tabs, line ends and delete as spaces.
std::string XmlText(const std::string& text);

// Returns the picture of |record| as an SVG document.
std::string SvgReport(const SessionRecord& record);
