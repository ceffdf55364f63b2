"""The evaluation: synthetic sequences with ground truth, the runs of the
program and of the peer method, and the scores."""
