// The hidden string 1011.
OPENQASM 2.0;
include "qelib1.inc";
qreg q[5];
x q[4];
h q;
cx q[0],q[4];
cx q[2],q[4];
cx q[3],q[4];
h q;
