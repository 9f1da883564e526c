// The download queue, its data file and report builder, the listing writer and the
// local directory scan: the producing side of directory listings and queue reports.
#pragma once
