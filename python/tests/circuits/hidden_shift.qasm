// The hidden shift 1001 of a bent function.
OPENQASM 2.0;
include "qelib1.inc";
qreg q[4];
h q;
x q[0];
x q[3];
cz q[0],q[2];
cz q[1],q[3];
x q[0];
x q[3];
h q;
cz q[0],q[2];
cz q[1],q[3];
h q;
