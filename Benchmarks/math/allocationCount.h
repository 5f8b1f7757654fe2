#pragma once

// How often this program has allocated memory with new so far.
long allocationCount();
