-- The route table of one relay: which client's messages of which class go to which client.
-- Load it into the database "tessel":  psql -U postgres -d tessel -f iopatch.sql
--
-- Unlogged, because every run of the relay starts by emptying the table: routes need no
-- write-ahead log, and inserts are faster without one. PostgreSQL itself empties an unlogged table
-- after a crash, which loses nothing that the connection server would not send again.
CREATE UNLOGGED TABLE iopatch (
    -- Client ids are unsigned 32-bit numbers, beyond the range of integer. The relay reads them
    -- back as decimal text, so the width costs it nothing.
    clientto   bigint  NOT NULL,
    clientfrom bigint  NOT NULL,
    -- The class of message that this route carries, a signed number.
    msgclass   integer NOT NULL,

    -- An order for a route that exists must fail as a duplicate, which the relay treats as
    -- harmless. The column order lets the constraint's index answer more than that:
    --   WHERE clientfrom = .. AND msgclass = ..    every route look-up, from the index alone
    --                                              as it holds clientto too; removal of all
    --                                              routes of a source for one class
    --   WHERE clientto = .. AND clientfrom = .. AND msgclass = ..    removal of one route
    --   .. OR clientfrom = ..                      one half of "is the client in any route"
    CONSTRAINT iopatch_route UNIQUE (clientfrom, msgclass, clientto)
);

-- The index above does not help queries that start from the destination:
--   WHERE clientto = .. AND msgclass = ..    removal of all routes to a client for one class
--   WHERE clientto = .. OR ..                the other half of "is the client in any route"
CREATE INDEX iopatch_destination ON iopatch (clientto, msgclass);
