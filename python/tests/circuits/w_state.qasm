// Three qubits, one excitation shared evenly.
OPENQASM 2.0;
include "qelib1.inc";
qreg q[3];
ry(2*0.9553166181245092) q[0];
ch q[0],q[1];
cx q[1],q[2];
cx q[0],q[1];
x q[0];
