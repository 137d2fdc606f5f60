// The Toffoli gate from one- and two-qubit gates.
OPENQASM 2.0;
include "qelib1.inc";
gate ccnot a,b,c { h c; cx b,c; tdg c; cx a,c; t c; cx b,c; tdg c; cx a,c; t b; t c; h c; cx a,b; t a; tdg b; cx a,b; }
qreg q[3];
h q[0];
rx(0.7) q[1];
ry(0.2) q[2];
ccnot q[0],q[1],q[2];
