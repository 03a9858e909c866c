// Only carries the precompiled headers of the test programs; the test runner's own main has nothing to run
// here.
