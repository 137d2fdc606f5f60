// A qubit measured, reset and used again.
OPENQASM 2.0;
include "qelib1.inc";
qreg q[2];
creg c[2];
creg d[1];
h q[0];
measure q[0] -> c[0];
reset q[0];
cx q[0],q[1];
measure q[0] -> c[1];
measure q[1] -> d[0];
