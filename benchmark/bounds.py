"""What the service may cost beside the baseline: {what is counted: {kind of work: ratio}}.

The ratios are those that ./bench --counts showed for this version; --check fails when one is exceeded by more than
TOLERANCE. Only counts stand here that leave out what threads do until they meet, which is the machine's business. A
change that makes a piece of work costlier on purpose changes its ratio here.
"""
TOLERANCE = 0.05

RATIOS = {
    "handlers' instructions": {
        "read": 1.24,
        "write": 1.42,
        "multi-write": 1.25,
        "authorize": 1.31,
        "discovery": 1.00,
        "discovery-plain": 1.38,
        "login": 1.45,
        "event-1": 1.19,
        "event-client": 3.70,
    },
    "allocations": {
        "read": 1.00,
        "write": 1.01,
        "multi-write": 1.02,
        "authorize": 1.00,
        "discovery": 1.01,
        "discovery-plain": 1.02,
        "login": 1.13,
        "event-1": 1.04,
    },
}
