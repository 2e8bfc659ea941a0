// Dormant device library: single-step wrappers, plane sweeps, device printf.
#pragma once
